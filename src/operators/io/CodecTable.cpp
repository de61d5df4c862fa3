// The table of image file formats. Signatures are tried in this order; each is specific enough
// that no file matches two.
#include <cctype>
#include <cstring>
#include <fstream>

#include "ImageFileCodecs.hpp"
#include "RawSamples.hpp"

namespace vorn {
namespace detail {
namespace {

bool isGzip(const unsigned char* head, std::size_t count) {
  return count >= 2 && head[0] == 0x1f && head[1] == 0x8b;
}

bool fileIsGzip(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  unsigned char head[2] = {};
  file.read(reinterpret_cast<char*>(head), sizeof head);
  return isGzip(head, static_cast<std::size_t>(file.gcount()));
}

bool hasBytesAt(const unsigned char* head, std::size_t count, std::size_t offset, const char* bytes,
                std::size_t length) {
  return count >= offset + length && std::memcmp(head + offset, bytes, length) == 0;
}

// A whole gzip file can only be a compressed NIfTI here: NRRD and MetaImage compress after
// their text header.
bool recognisesNifti(const unsigned char* head, std::size_t count) {
  return isGzip(head, count) || hasBytesAt(head, count, 344, "n+1", 4) ||
         hasBytesAt(head, count, 344, "ni1", 4) || hasBytesAt(head, count, 4, "n+2", 4);
}

void readPng(const std::string& path, std::uint64_t size, const ImageReadOptions&,
             ImageObject& into) {
  readPngFile(path, size, into);
}

void readNifti(const std::string& path, std::uint64_t size, const ImageReadOptions&,
               ImageObject& into) {
  const bool gzipped = fileIsGzip(path);
  std::ifstream file(path, std::ios::binary);
  char magic[4] = {};
  if (!gzipped && file.seekg(344).read(magic, 4) && std::memcmp(magic, "ni1", 4) == 0) {
    throw ImageFileError(path, "a NIfTI-1 header of a .hdr/.img pair, which is not supported");
  }
  if (niftiVersion(path, gzipped) == 2) {
    readNifti2File(path, gzipped, size, into);
  } else {
    readNiftiFile(path, gzipped, size, into);
  }
}

// NIfTI-1 while every axis fits its 16-bit sizes, so that every NIfTI reader opens the file.
bool needsNifti2(const ImageObject& image) {
  for (unsigned int axis = 0; axis < image.getDimension(); ++axis) {
    if (image.getBufferedRegion().m_size[axis] > 32767) return true;
  }
  return false;
}

void writeNifti(const ImageObject& image, const std::string& temporary, const std::string& target) {
  const bool gzipped = endsWithLowercase(target, ".gz");
  if (needsNifti2(image)) {
    writeNifti2File(image, temporary, gzipped, target);
  } else {
    writeNiftiFile(image, temporary, gzipped, target);
  }
}

std::vector<Codec> buildCodecs() {
  // DICOM first: its 128-byte preamble is free for another format's header (files that are
  // both TIFF and DICOM exist), so only its "DICM" at byte 128 tells it apart.
  return {
      {"DICOM", {".dcm"}, isDicomSignature, readDicomFile, nullptr, true},
      {"PNG", {".png"}, isPngSignature, readPng, writePngFile, false},
      {"NIfTI-1/2", {".nii", ".nii.gz"}, recognisesNifti, readNifti, writeNifti, false},
      {"TIFF", {".tif", ".tiff"}, isTiffSignature, readTiffFile, writeTiffFile, false},
      {"NRRD", {".nrrd", ".nhdr"}, isNrrdSignature, readNrrdFile, writeNrrdFile, false},
      {"MetaImage",
       {".mha", ".mhd"},
       isMetaImageSignature,
       readMetaImageFile,
       writeMetaImageFile,
       false},
  };
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

}  // namespace

const std::vector<Codec>& codecs() {
  static const std::vector<Codec> table = buildCodecs();
  return table;
}

std::string codecNames() {
  std::vector<std::string> names;
  for (const Codec& codec : codecs()) names.push_back(codec.name);
  return joined(names);
}

std::string writableExtensions() {
  std::vector<std::string> extensions;
  for (const Codec& codec : codecs()) {
    if (codec.write != nullptr) {
      extensions.insert(extensions.end(), codec.extensions.begin(), codec.extensions.end());
    }
  }
  return joined(extensions);
}

}  // namespace detail
}  // namespace vorn

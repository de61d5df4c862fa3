// Internals of the image files: the codec table readImageFile and writeImageFile loop over,
// the size arithmetic the readers share to refuse lying headers before allocating, and the
// temporary-file writing the writer operator uses for its deferred commit.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace vorn {
namespace detail {

// One file format. Adding a format is one row in codecs() and one source file.
struct Codec {
  const char* name;                     // "TIFF", for messages and --help
  std::vector<std::string> extensions;  // lower case; the first one is the default
  // Whether a file starting with these bytes is of this format (null: never by content).
  bool (*recognises)(const unsigned char* head, std::size_t count);
  // Fills `into`, a fresh image; `fileSize` is 0 for a folder.
  void (*read)(const std::string& path, std::uint64_t fileSize, const ImageReadOptions& options,
               ImageObject& into);
  // Creates `temporary` anew; errors name `target` (null: the format is read only).
  void (*write)(const ImageObject& image, const std::string& temporary, const std::string& target);
  bool readsFolders;  // a folder given to readImageFile goes to this codec
};

// Every format vorn knows, in the order their signatures are tried.
const std::vector<Codec>& codecs();
// "DICOM, PNG, NIfTI-1/2, ...": the names of the table, for messages and help texts.
std::string codecNames();
// ".png, .nii, ...": the extensions writeImageFile accepts.
std::string writableExtensions();

// a * b, or false when the product does not fit in 64 bits.
bool multiplyChecked(std::uint64_t a, std::uint64_t b, std::uint64_t& product);
// The most bytes `compressed` bytes of deflate data can expand to (saturating).
std::uint64_t inflateBound(std::uint64_t compressed);

// Bounding what a file claims. A reader checks every size it takes from the file (pixel data,
// chunks, offsets, metadata) before it allocates for it or seeks by it: raw data against the
// bytes the file has, deflate data against what the compressed bytes present can expand to.
// A failure throws ImageFileError for `path` naming the claim, its size and what the file has,
// e.g. "PNG chunk tEXt at byte 33 claims 1769340953 bytes, more than the 122 bytes left in
// the file". Pass a saturated size (UINT64_MAX) for a claim whose arithmetic overflowed.
void requireWithin(const std::string& path, const std::string& claim, std::uint64_t claimed,
                   std::uint64_t present, const std::string& where);
// As requireWithin, with the bound inflateBound(compressed): "... more than the 89 compressed
// bytes of the IDAT chunks can expand to (at most 91848)".
void requireInflatable(const std::string& path, const std::string& claim, std::uint64_t claimed,
                       std::uint64_t compressed, const std::string& where);

// The most bytes of metadata (text, colour profiles, unknown chunks, header extensions) a
// reader holds at once; real files use a few kB. Readers that need none skip it unread.
constexpr std::uint64_t maximumMetadataBytes = std::uint64_t{1} << 20;

// Whether the first bytes of a file are a PNG signature (at least 8 bytes needed).
bool isPngSignature(const unsigned char* bytes, std::size_t count);

// The readers fill `image`, a fresh image; `fileSize` is the size of the file on disk. Every
// failure throws ImageFileError naming `path`.
void readPngFile(const std::string& path, std::uint64_t fileSize, ImageObject& image);
void readNiftiFile(const std::string& path, bool gzipped, std::uint64_t fileSize,
                   ImageObject& image);

// NIfTI-2 (540-byte header): the same reading rules as NIfTI-1. niftiVersion says which of the
// two the header is (1 when unsure: the NIfTI-1 reader then explains what is wrong).
int niftiVersion(const std::string& path, bool gzipped);
void readNifti2File(const std::string& path, bool gzipped, std::uint64_t fileSize,
                    ImageObject& image);
void writeNifti2File(const ImageObject& image, const std::string& temporary, bool gzipped,
                     const std::string& target);

// TIFF: pages of one size as a stack; colour as luma.
bool isTiffSignature(const unsigned char* head, std::size_t count);
void readTiffFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions& options,
                  ImageObject& image);
void writeTiffFile(const ImageObject& image, const std::string& temporary,
                   const std::string& target);
// NRRD and MetaImage, attached or with a data file beside the header.
bool isNrrdSignature(const unsigned char* head, std::size_t count);
void readNrrdFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions& options,
                  ImageObject& image);
void writeNrrdFile(const ImageObject& image, const std::string& temporary,
                   const std::string& target);
bool isMetaImageSignature(const unsigned char* head, std::size_t count);
void readMetaImageFile(const std::string& path, std::uint64_t fileSize,
                       const ImageReadOptions& options, ImageObject& image);
void writeMetaImageFile(const ImageObject& image, const std::string& temporary,
                        const std::string& target);
// DICOM (read only): one file, or a folder holding one series (the one options.series names
// when it holds several).
bool isDicomSignature(const unsigned char* head, std::size_t count);
void readDicomFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions& options,
                   ImageObject& image);
// What a DICOM file's walk keeps: its transfer syntax UID, the raw values of its short
// top-level elements of groups 0018, 0020 and 0028 (by tag, 0x00280010 for Rows), and where its
// pixel data lies: one span (offset, bytes) when native, one per fragment when encapsulated
// (the first being the offset table).
struct DicomElements {
  std::string syntax;
  std::map<std::uint32_t, std::string> values;
  bool hasPixels = false, encapsulated = false;
  std::pair<std::uint64_t, std::uint64_t> pixels;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> fragments;
};
// Walks every element of a DICOM file, refusing it when a length it claims (nested ones
// included) runs past its end, or when its transfer syntax is deflated or big-endian.
DicomElements readDicomElements(const std::string& path, std::uint64_t fileSize);
// One frame of DICOM RLE (its fragment) decoded into `out`: pixels x samples x sampleBytes bytes,
// samples interleaved, little-endian. A malformed frame throws ImageFileError naming `path`.
struct DicomRleLayout {
  std::uint64_t pixels;
  std::uint32_t samples, sampleBytes;
};
void decodeDicomRleFrame(const std::string& path, const std::vector<unsigned char>& fragment,
                         const DicomRleLayout& layout, unsigned char* out);

// The writers create `temporary` anew; their errors name `target`, the file the user asked for.
void writePngFile(const ImageObject& image, const std::string& temporary,
                  const std::string& target);
void writeNiftiFile(const ImageObject& image, const std::string& temporary, bool gzipped,
                    const std::string& target);

// Writes `image` completely to a new temporary file beside `target` (format by the target's
// extension) and returns its name. On failure nothing is left behind.
std::string writeTemporaryImageFile(const ImageObject& image, const std::string& target);
// Renames `temporary` over `target`; on failure removes `temporary` and throws ImageFileError.
void commitTemporaryImageFile(const std::string& temporary, const std::string& target);

}  // namespace detail
}  // namespace vorn

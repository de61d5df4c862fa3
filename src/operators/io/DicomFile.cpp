// DICOM: one file, or a folder holding one series, read as a volume. Every file's elements are
// walked first (DicomElements.cpp, pixels unread) so that the whole series is checked, sorted
// and its pixel type chosen before anything is allocated; then each file's pixels are read,
// decoded (RLE here, the JPEG family by GDCM's codecs) and stored into the volume.
#include <gdcmImage.h>
#include <gdcmSequenceOfFragments.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "ImageFileCodecs.hpp"

namespace vorn {
namespace detail {
namespace {

// A folder holding more entries than this is refused unread, and so is a series (or a
// multi-frame file) of more slices: both far beyond any real acquisition.
constexpr std::size_t maximumFolderEntries = 20000;
constexpr std::uint64_t maximumSlices = 10000;
// Encapsulated pixels may expand this much per compressed byte (RLE's runs of 128 bytes from
// 2; JPEG's sparsest blocks about 4096), and each frame at least to this many bytes.
constexpr std::uint64_t rleExpansion = 64;
constexpr std::uint64_t jpegExpansion = 4096;
constexpr std::uint64_t minimumCompressedBound = std::uint64_t{1} << 20;
// Slices whose gaps differ from the series' mean spacing by more than this fraction of it are
// refused as unevenly spaced.
constexpr double spacingTolerance = 0.01;

const gdcm::Tag pixelDataTag(0x7fe0, 0x0010);
using Bytes = std::vector<unsigned char>;

// What one file's header says, read before any of its pixels.
struct Slice {
  std::string path, series, photometric;
  std::uint64_t fileSize = 0, frames = 1;
  gdcm::TransferSyntax syntax;
  unsigned rows = 0, columns = 0, samples = 1, bitsAllocated = 0, bitsStored = 0, highBit = 0;
  bool isSigned = false, planar = false;
  DicomElements elements;  // where the pixels lie
  std::vector<double> position, orientation, pixelSpacing, frameSpacing;
  double slope = 1.0, intercept = 0.0;
};

std::string trimmed(std::string text) {
  const auto blank = [](char c) { return c == ' ' || c == '\0'; };
  while (!text.empty() && blank(text.back())) text.pop_back();
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first);
}

std::string textOf(const DicomElements& e, std::uint32_t tag) {
  const auto found = e.values.find(tag);
  return found == e.values.end() ? "" : trimmed(found->second);
}

// A backslash-separated decimal string; a value that is not a number reads as NaN.
std::vector<double> numbersOf(const DicomElements& e, std::uint32_t tag) {
  std::vector<double> numbers;
  const std::string text = textOf(e, tag);
  std::size_t start = 0;
  while (!text.empty() && start <= text.size()) {
    const std::size_t end = std::min(text.find('\\', start), text.size());
    const std::string word = trimmed(text.substr(start, end - start));
    char* stop = nullptr;
    const double value = std::strtod(word.c_str(), &stop);
    numbers.push_back(word.empty() || *stop != '\0' ? NAN : value);
    start = end + 1;
  }
  return numbers;
}

// An unsigned short (little-endian, as both syntaxes read store it); `fallback` when missing.
unsigned shortOf(const DicomElements& e, std::uint32_t tag, unsigned fallback = 0) {
  const auto found = e.values.find(tag);
  if (found == e.values.end() || found->second.size() < 2) return fallback;
  const auto* bytes = reinterpret_cast<const unsigned char*>(found->second.data());
  return bytes[0] | unsigned{bytes[1]} << 8;
}

double numberOr(const DicomElements& e, std::uint32_t tag, double fallback) {
  const std::vector<double> numbers = numbersOf(e, tag);
  return numbers.empty() ? fallback : numbers[0];
}

std::string describe(const Slice& s) {
  return std::to_string(s.columns) + " x " + std::to_string(s.rows) + " pixels of " +
         std::to_string(s.samples) + " samples of " + std::to_string(s.bitsAllocated) + " bits (" +
         std::to_string(s.bitsStored) + " stored, " + (s.isSigned ? "signed" : "unsigned") + ", " +
         s.photometric + ")";
}

void requireSupported(const Slice& s) {
  const bool gray = s.photometric == "MONOCHROME1" || s.photometric == "MONOCHROME2";
  // JPEG's YBR_FULL_422 names the stream's subsampling; the codec returns full YBR_FULL rows.
  const bool jpeg = s.syntax.IsEncapsulated() && s.syntax != gdcm::TransferSyntax::RLELossless;
  const bool colour = s.photometric == "RGB" || s.photometric == "YBR_FULL" ||
                      (jpeg && s.photometric == "YBR_FULL_422");
  const bool bits = s.bitsAllocated == 8 || s.bitsAllocated == 16 || s.bitsAllocated == 32;
  const bool stored = s.bitsStored >= 1 && s.bitsStored <= s.bitsAllocated &&
                      s.highBit + 1 >= s.bitsStored && s.highBit < s.bitsAllocated;
  if (((gray && s.samples == 1) || (colour && s.samples == 3)) && bits && stored) return;
  throw ImageFileError(s.path, "DICOM " + describe(s) +
                                   " is not supported (gray MONOCHROME1/2 or RGB/YBR_FULL "
                                   "samples of 8, 16 or 32 bits; YBR_FULL_422 in JPEG)");
}

std::uint64_t frameBytes(const Slice& s) {
  std::uint64_t bytes = s.bitsAllocated / 8;
  if (multiplyChecked(bytes, s.rows, bytes) && multiplyChecked(bytes, s.columns, bytes) &&
      multiplyChecked(bytes, s.samples, bytes))
    return bytes;
  return UINT64_MAX;
}

// The most bytes of pixels `bytes` bytes of data in the slice's transfer syntax can give.
std::uint64_t pixelBound(const Slice& s, std::uint64_t bytes) {
  if (!s.syntax.IsEncapsulated()) return bytes;
  const std::uint64_t expansion =
      s.syntax == gdcm::TransferSyntax::RLELossless ? rleExpansion : jpegExpansion;
  std::uint64_t bound = 0;
  if (!multiplyChecked(bytes, expansion, bound)) bound = UINT64_MAX;
  std::uint64_t floor = 0;
  if (!multiplyChecked(minimumCompressedBound, s.frames, floor)) floor = UINT64_MAX;
  return std::max(bound, floor);
}

void requirePixelsWithin(const Slice& s, std::uint64_t bytes, const std::string& where) {
  std::uint64_t claimed = 0;
  if (!multiplyChecked(frameBytes(s), s.frames, claimed)) claimed = UINT64_MAX;
  const std::string claim = "DICOM pixel data of " + std::to_string(s.frames) + " frame(s) of " +
                            describe(s) + " (" + s.syntax.GetString() + ")";
  requireWithin(s.path, claim, claimed, pixelBound(s, bytes), where);
}

Slice sliceOf(const std::string& path, std::uint64_t fileSize, const DicomElements& e) {
  Slice s;
  s.path = path;
  s.fileSize = fileSize;
  s.elements = e;
  s.syntax = gdcm::TransferSyntax::GetTSType(e.syntax.c_str());
  if (s.syntax == gdcm::TransferSyntax::TS_END || e.encapsulated != s.syntax.IsEncapsulated())
    throw ImageFileError(path, "DICOM transfer syntax " + e.syntax + " is not supported" +
                                   (e.encapsulated ? " for encapsulated pixel data" : ""));
  s.series = textOf(e, 0x0020000e);
  s.photometric = textOf(e, 0x00280004);
  s.samples = shortOf(e, 0x00280002, 1);
  s.rows = shortOf(e, 0x00280010);
  s.columns = shortOf(e, 0x00280011);
  s.bitsAllocated = shortOf(e, 0x00280100);
  s.bitsStored = shortOf(e, 0x00280101);
  s.highBit = shortOf(e, 0x00280102);
  s.isSigned = shortOf(e, 0x00280103) == 1;
  s.planar = s.samples > 1 && shortOf(e, 0x00280006) == 1;
  const double frames = numberOr(e, 0x00280008, 1.0);
  if (!(frames >= 1.0 && frames <= static_cast<double>(maximumSlices)))
    throw ImageFileError(path, "DICOM Number of Frames " + textOf(e, 0x00280008) +
                                   " is not between 1 and " + std::to_string(maximumSlices));
  s.frames = static_cast<std::uint64_t>(frames);
  s.position = numbersOf(e, 0x00200032);
  s.orientation = numbersOf(e, 0x00200037);
  s.pixelSpacing = numbersOf(e, 0x00280030);
  s.frameSpacing = numbersOf(e, 0x00180088);
  s.slope = numberOr(e, 0x00281053, 1.0);
  s.intercept = numberOr(e, 0x00281052, 0.0);
  if (!std::isfinite(s.slope) || s.slope == 0.0 || !std::isfinite(s.intercept))
    throw ImageFileError(path, "DICOM Rescale Slope " + textOf(e, 0x00281053) + " and Intercept " +
                                   textOf(e, 0x00281052) +
                                   " must be finite numbers, the slope not 0");
  if (s.rows == 0 || s.columns == 0)
    throw ImageFileError(path, "DICOM file without image pixels (Rows and Columns missing or 0)");
  requireSupported(s);
  requirePixelsWithin(s, fileSize, "in the file");
  return s;
}

Slice readHeader(const std::string& path, std::uint64_t fileSize) {
  const DicomElements elements = readDicomElements(path, fileSize);
  if (!elements.hasPixels) throw ImageFileError(path, "DICOM file without pixel data");
  return sliceOf(path, fileSize, elements);
}

bool isDicomFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  unsigned char head[132] = {};
  file.read(reinterpret_cast<char*>(head), sizeof head);
  return isDicomSignature(head, static_cast<std::size_t>(file.gcount()));
}

// The DICOM files of a folder (not its subfolders), by name.
std::vector<std::filesystem::path> dicomFilesIn(const std::string& folder) {
  std::vector<std::filesystem::path> files;
  std::size_t entries = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    if (++entries > maximumFolderEntries)
      throw ImageFileError(folder, "a folder of more than " + std::to_string(maximumFolderEntries) +
                                       " entries is not read as a DICOM series");
    if (it->is_regular_file(error) && isDicomFile(it->path())) files.push_back(it->path());
  }
  if (error) throw ImageFileError(folder, "cannot list the folder: " + error.message());
  if (files.empty())
    throw ImageFileError(folder,
                         "a folder is read as a DICOM series, and this one holds no DICOM files");
  std::sort(files.begin(), files.end());
  return files;
}

std::string seriesList(const std::map<std::string, std::size_t>& counts) {
  std::string text;
  for (const auto& [uid, count] : counts)
    text += (text.empty() ? "" : ", ") + (uid.empty() ? "(no UID)" : uid) + " (" +
            std::to_string(count) + (count == 1 ? " file)" : " files)");
  return text;
}

// The slices of the series asked for, or of the only one.
std::vector<Slice> pickSeries(std::vector<Slice> slices, const std::string& wanted,
                              const std::string& path) {
  std::map<std::string, std::size_t> counts;
  for (const Slice& s : slices) ++counts[s.series];
  if (wanted.empty() && counts.size() == 1) return slices;
  if (wanted.empty())
    throw ImageFileError(path,
                         "holds " + std::to_string(counts.size()) +
                             " DICOM series; pick one with series=UID: " + seriesList(counts));
  if (counts.count(wanted) == 0)
    throw ImageFileError(path, "holds no DICOM series " + wanted + ", only " + seriesList(counts));
  slices.erase(std::remove_if(slices.begin(), slices.end(),
                              [&](const Slice& s) { return s.series != wanted; }),
               slices.end());
  return slices;
}

void requireSameKind(const std::vector<Slice>& slices, const std::string& folder) {
  const Slice& first = slices.front();
  for (const Slice& s : slices) {
    if (describe(s) != describe(first))
      throw ImageFileError(folder, "a DICOM series of mixed slices: " + s.path + " holds " +
                                       describe(s) + ", " + first.path + " " + describe(first));
    if (s.frames != 1)
      throw ImageFileError(folder, s.path + " holds " + std::to_string(s.frames) +
                                       " frames; a series is read from single-frame files");
  }
}

using Vector = std::array<double, 3>;

bool finite(const std::vector<double>& numbers, std::size_t count) {
  return numbers.size() >= count &&
         std::all_of(numbers.begin(), numbers.begin() + static_cast<std::ptrdiff_t>(count),
                     [](double v) { return std::isfinite(v); });
}

Vector normalOf(const Slice& s) {
  const std::vector<double>& o = s.orientation;
  return {o[1] * o[5] - o[2] * o[4], o[2] * o[3] - o[0] * o[5], o[0] * o[4] - o[1] * o[3]};
}

double along(const Slice& s, const Vector& normal) {
  return s.position[0] * normal[0] + s.position[1] * normal[1] + s.position[2] * normal[2];
}

void requireGeometry(const std::vector<Slice>& slices, const std::string& folder) {
  const Slice& first = slices.front();
  for (const Slice& s : slices) {
    if (!finite(s.position, 3) || !finite(s.orientation, 6))
      throw ImageFileError(folder, s.path +
                                       " has no usable Image Position and Orientation (Patient) "
                                       "to place it in the series");
    for (std::size_t k = 0; k < 6; ++k) {
      if (std::fabs(s.orientation[k] - first.orientation[k]) > 1e-4)
        throw ImageFileError(
            folder, s.path + " and " + first.path + " differ in Image Orientation (Patient)");
    }
  }
}

// Sorts the slices along the normal of their orientation; returns the distance between them.
double sortAlongNormal(std::vector<Slice>& slices, const std::string& folder) {
  requireGeometry(slices, folder);
  const Vector normal = normalOf(slices.front());
  std::stable_sort(slices.begin(), slices.end(), [&](const Slice& a, const Slice& b) {
    return along(a, normal) < along(b, normal);
  });
  const double spacing = (along(slices.back(), normal) - along(slices.front(), normal)) /
                         static_cast<double>(slices.size() - 1);
  for (std::size_t k = 1; k < slices.size(); ++k) {
    const double gap = along(slices[k], normal) - along(slices[k - 1], normal);
    if (!(spacing > 0.0) || std::fabs(gap - spacing) > spacingTolerance * spacing)
      throw ImageFileError(folder, "an unevenly spaced DICOM series: " + slices[k - 1].path +
                                       " and " + slices[k].path + " are " + std::to_string(gap) +
                                       " apart, the series' mean spacing is " +
                                       std::to_string(spacing) + " (tolerance 1%)");
  }
  return spacing;
}

// The stored range of a slice's samples after its rescale.
std::pair<double, double> rescaledRange(const Slice& s) {
  const double top = std::ldexp(1.0, static_cast<int>(s.bitsStored) - (s.isSigned ? 1 : 0)) - 1;
  const double bottom = s.isSigned ? -top - 1 : 0.0;
  const double a = bottom * s.slope + s.intercept, b = top * s.slope + s.intercept;
  return {std::min(a, b), std::max(a, b)};
}

bool integral(double value) { return std::floor(value) == value; }

// Integral rescales keep integers: UCHAR for 8-bit samples that stay within 0..255, SHORT
// for whatever stays within its range; everything else, and 16-bit colour, is FLOAT.
PixelType::Type volumeType(const std::vector<Slice>& slices) {
  const bool colour = slices.front().samples == 3;
  if (colour) return slices.front().bitsAllocated == 8 ? PixelType::UCHAR : PixelType::FLOAT;
  double low = 0.0, high = 0.0;
  bool integers = true;
  for (const Slice& s : slices) {
    const auto [a, b] = rescaledRange(s);
    low = std::min(low, a);
    high = std::max(high, b);
    integers = integers && integral(s.slope) && integral(s.intercept);
  }
  if (!integers) return PixelType::FLOAT;
  if (slices.front().bitsAllocated == 8 && low >= 0.0 && high <= 255.0) return PixelType::UCHAR;
  if (low >= -32768.0 && high <= 32767.0) return PixelType::SHORT;
  return PixelType::FLOAT;
}

double storedValue(const unsigned char* bytes, std::uint64_t index, const Slice& s) {
  std::uint32_t raw = 0;
  if (s.bitsAllocated == 8) {
    raw = bytes[index];
  } else if (s.bitsAllocated == 16) {
    std::uint16_t word = 0;
    std::memcpy(&word, bytes + 2 * index, 2);
    raw = word;
  } else {
    std::memcpy(&raw, bytes + 4 * index, 4);
  }
  // Bits outside the stored ones may hold overlays; a signed value's top stored bit is its sign.
  const std::uint64_t span = std::uint64_t{1} << s.bitsStored;
  const std::uint64_t value = (raw >> (s.highBit + 1 - s.bitsStored)) & (span - 1);
  if (s.isSigned && value >= span / 2)
    return static_cast<double>(value) - static_cast<double>(span);
  return static_cast<double>(value);
}

// Gray values as they are; RGB as its luma, rounded as the PNG reader does; YBR_FULL's (and
// decoded YBR_FULL_422's) luma is its Y.
double grayValue(const unsigned char* frame, std::uint64_t k, std::uint64_t pixels,
                 const Slice& s) {
  if (s.samples == 1) return storedValue(frame, k, s) * s.slope + s.intercept;
  const auto sample = [&](unsigned c) {
    return storedValue(frame, s.planar ? c * pixels + k : 3 * k + c, s);
  };
  if (s.photometric.rfind("YBR_FULL", 0) == 0) return sample(0);
  return std::floor((299 * sample(0) + 587 * sample(1) + 114 * sample(2) + 500) / 1000);
}

template <class T>
void storeFrames(const unsigned char* data, const Slice& s, T* out) {
  const std::uint64_t pixels = std::uint64_t{s.rows} * s.columns;
  const std::uint64_t bytes = frameBytes(s);
  for (std::uint64_t f = 0; f < s.frames; ++f) {
    for (std::uint64_t k = 0; k < pixels; ++k)
      out[f * pixels + k] = static_cast<T>(grayValue(data + f * bytes, k, pixels, s));
  }
}

Bytes readSpan(std::ifstream& file, const std::pair<std::uint64_t, std::uint64_t>& span,
               const std::string& path) {
  Bytes bytes(span.second);
  if (!file.seekg(static_cast<std::streamoff>(span.first))
           .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(span.second)))
    throw ImageFileError(path, "cannot read the DICOM pixel data");
  return bytes;
}

// The fragments as GDCM's codecs take them (the first one, the offset table, left out).
gdcm::DataElement fragmentsOf(const Slice& s, std::ifstream& file) {
  gdcm::SmartPointer<gdcm::SequenceOfFragments> sequence = new gdcm::SequenceOfFragments;
  for (std::size_t k = 1; k < s.elements.fragments.size(); ++k) {
    const Bytes bytes = readSpan(file, s.elements.fragments[k], s.path);
    gdcm::Fragment fragment;
    fragment.SetByteValue(reinterpret_cast<const char*>(bytes.data()),
                          static_cast<std::uint32_t>(bytes.size()));
    sequence->AddFragment(fragment);
  }
  gdcm::DataElement pixels(pixelDataTag);
  pixels.SetValue(*sequence);
  pixels.SetVLToUndefined();
  return pixels;
}

// GDCM's codecs decode the fragments as the checked header describes them.
Bytes decodeFragments(const Slice& s, std::ifstream& file, std::uint64_t bytes) {
  gdcm::Image image;
  image.SetNumberOfDimensions(s.frames > 1 ? 3 : 2);
  image.SetDimension(0, s.columns);
  image.SetDimension(1, s.rows);
  if (s.frames > 1) image.SetDimension(2, static_cast<unsigned>(s.frames));
  image.SetPixelFormat(gdcm::PixelFormat(
      static_cast<unsigned short>(s.samples), static_cast<unsigned short>(s.bitsAllocated),
      static_cast<unsigned short>(s.bitsStored), static_cast<unsigned short>(s.highBit),
      s.isSigned ? 1 : 0));
  image.SetPhotometricInterpretation(
      gdcm::PhotometricInterpretation::GetPIType(s.photometric.c_str()));
  image.SetPlanarConfiguration(s.planar ? 1 : 0);
  image.SetTransferSyntax(s.syntax);
  image.SetDataElement(fragmentsOf(s, file));
  Bytes buffer(bytes);
  bool decoded = image.GetBufferLength() == bytes;
  try {
    decoded = decoded && image.GetBuffer(reinterpret_cast<char*>(buffer.data()));
  } catch (const std::exception&) {
    decoded = false;
  }
  if (!decoded)
    throw ImageFileError(
        s.path, std::string("cannot decode the DICOM pixel data (") + s.syntax.GetString() + ")");
  return buffer;
}

std::uint64_t pixelBytesPresent(const Slice& s) {
  if (!s.elements.encapsulated) return s.elements.pixels.second;
  std::uint64_t bytes = 0;
  for (std::size_t k = 1; k < s.elements.fragments.size(); ++k)
    bytes += s.elements.fragments[k].second;
  return bytes;
}

// One fragment per frame, as the RLE syntax requires.
Bytes decodeRle(const Slice& s, std::ifstream& file, std::uint64_t bytes) {
  const std::vector<std::pair<std::uint64_t, std::uint64_t>>& fragments = s.elements.fragments;
  if (fragments.size() != s.frames + 1)
    throw ImageFileError(s.path, "DICOM RLE pixel data of " + std::to_string(fragments.size() - 1) +
                                     " fragments for " + std::to_string(s.frames) + " frames");
  Bytes buffer(bytes);
  const DicomRleLayout layout = {std::uint64_t{s.rows} * s.columns, s.samples, s.bitsAllocated / 8};
  for (std::uint64_t f = 0; f < s.frames; ++f)
    decodeDicomRleFrame(s.path, readSpan(file, fragments[f + 1], s.path), layout,
                        buffer.data() + f * frameBytes(s));
  return buffer;
}

// Decodes the slice's pixels and stores them, rescaled, at `out`.
void decodeSlice(const Slice& s, PixelType::Type type, void* out) {
  requirePixelsWithin(s, pixelBytesPresent(s), "of pixel data in the file");
  std::ifstream file(s.path, std::ios::binary);
  const std::uint64_t bytes = frameBytes(s) * s.frames;
  const bool rle = s.syntax == gdcm::TransferSyntax::RLELossless;
  Bytes data;
  if (rle) {
    data = decodeRle(s, file, bytes);
  } else if (s.elements.encapsulated) {
    data = decodeFragments(s, file, bytes);
  } else {
    data = readSpan(file, {s.elements.pixels.first, bytes}, s.path);
  }
  Slice layout = s;
  layout.planar = s.planar && !rle;  // RLE decodes to interleaved samples
  if (type == PixelType::UCHAR) storeFrames(data.data(), layout, static_cast<unsigned char*>(out));
  if (type == PixelType::SHORT) storeFrames(data.data(), layout, static_cast<short*>(out));
  if (type == PixelType::FLOAT) storeFrames(data.data(), layout, static_cast<float*>(out));
}

void setGeometry(const std::vector<Slice>& slices, double sliceSpacing, ImageObject& image) {
  const Slice& first = slices.front();
  const std::vector<double>& spacing = first.pixelSpacing;  // between rows, then columns
  if (finite(spacing, 2) && spacing[0] > 0.0 && spacing[1] > 0.0) {
    image.setSpacing(0, spacing[1]);
    image.setSpacing(1, spacing[0]);
  }
  if (image.getDimension() == 3 && sliceSpacing > 0.0) image.setSpacing(2, sliceSpacing);
  if (!finite(first.position, 3)) return;
  for (unsigned int axis = 0; axis < image.getDimension(); ++axis)
    image.setOrigin(axis, first.position[axis]);
}

// A multi-frame file's frames are Spacing Between Slices apart (1 when it is missing).
double frameSpacingOf(const Slice& s) {
  const bool given = finite(s.frameSpacing, 1) && s.frameSpacing[0] > 0.0;
  return given ? s.frameSpacing[0] : 1.0;
}

void readVolume(std::vector<Slice> slices, const std::string& path, ImageObject& image) {
  double sliceSpacing = 0.0;
  if (slices.size() > 1) {
    requireSameKind(slices, path);
    sliceSpacing = sortAlongNormal(slices, path);
  } else if (slices.front().frames > 1) {
    sliceSpacing = frameSpacingOf(slices.front());
  }
  const std::uint64_t depth = slices.size() * slices.front().frames;
  Box box(depth > 1 ? 3 : 2);
  box.m_size[0] = slices.front().columns;
  box.m_size[1] = slices.front().rows;
  if (depth > 1) box.m_size[2] = depth;
  const PixelType::Type type = volumeType(slices);
  image.Allocate(type, box);
  const std::uint64_t sliceBytes =
      std::uint64_t{slices.front().rows} * slices.front().columns * getSizeOf(type);
  auto* out = static_cast<unsigned char*>(image.getBuffer());
  for (std::size_t k = 0; k < slices.size(); ++k)
    decodeSlice(slices[k], type, out + k * slices[k].frames * sliceBytes);
  setGeometry(slices, sliceSpacing, image);
}

std::vector<Slice> readFolderHeaders(const std::string& folder) {
  const std::vector<std::filesystem::path> files = dicomFilesIn(folder);
  std::vector<Slice> slices;
  for (const std::filesystem::path& file : files)
    slices.push_back(readHeader(file.string(), std::filesystem::file_size(file)));
  return slices;
}

}  // namespace

bool isDicomSignature(const unsigned char* head, std::size_t count) {
  return count >= 132 && std::memcmp(head + 128, "DICM", 4) == 0;
}

void readDicomFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions& options,
                   ImageObject& image) {
  const bool folder = std::filesystem::is_directory(path);
  std::vector<Slice> slices =
      folder ? readFolderHeaders(path) : std::vector<Slice>{readHeader(path, fileSize)};
  slices = pickSeries(std::move(slices), options.series, path);
  if (slices.size() > maximumSlices)
    throw ImageFileError(path, "a DICOM series of " + std::to_string(slices.size()) +
                                   " slices, more than the " + std::to_string(maximumSlices) +
                                   " read");
  readVolume(std::move(slices), path, image);
}

}  // namespace detail
}  // namespace vorn

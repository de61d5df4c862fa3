#include "RawSamples.hpp"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>

#include "ImageFileCodecs.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace vorn {
namespace detail {
namespace {

constexpr std::size_t maximumAxes = 16;
constexpr std::size_t chunkBytes = 1 << 16;

bool hostIsBigEndian() {
  const std::uint16_t one = 1;
  unsigned char first = 0;
  std::memcpy(&first, &one, 1);
  return first == 0;
}

void swapSamples(unsigned char* bytes, std::uint64_t total, unsigned int size) {
  if (size < 2) return;
  for (std::uint64_t k = 0; k + size <= total; k += size) std::reverse(bytes + k, bytes + k + size);
}

const char* sampleName(SampleType type) {
  static const char* const names[] = {"uint8", "int8",   "uint16", "int16",   "uint32",
                                      "int32", "uint64", "int64",  "float32", "float64"};
  return names[static_cast<int>(type)];
}

template <class T>
void toFloat(const unsigned char* raw, std::uint64_t count, float* out) {
  for (std::uint64_t k = 0; k < count; ++k) {
    T value;
    std::memcpy(&value, raw + k * sizeof(T), sizeof(T));
    const double wide = static_cast<double>(value);
    constexpr double largest = std::numeric_limits<float>::max();
    out[k] = wide > largest    ? std::numeric_limits<float>::infinity()
             : wide < -largest ? -std::numeric_limits<float>::infinity()
                               : static_cast<float>(wide);
  }
}

void convertToFloat(const unsigned char* raw, std::uint64_t count, SampleType type, float* out) {
  switch (type) {
    case SampleType::U8:
      return toFloat<std::uint8_t>(raw, count, out);
    case SampleType::I8:
      return toFloat<std::int8_t>(raw, count, out);
    case SampleType::U16:
      return toFloat<std::uint16_t>(raw, count, out);
    case SampleType::I16:
      return toFloat<std::int16_t>(raw, count, out);
    case SampleType::U32:
      return toFloat<std::uint32_t>(raw, count, out);
    case SampleType::I32:
      return toFloat<std::int32_t>(raw, count, out);
    case SampleType::U64:
      return toFloat<std::uint64_t>(raw, count, out);
    case SampleType::I64:
      return toFloat<std::int64_t>(raw, count, out);
    case SampleType::F32:
      return toFloat<float>(raw, count, out);
    case SampleType::F64:
      return toFloat<double>(raw, count, out);
  }
}

struct InflateEnd {
  void operator()(z_stream* stream) const { inflateEnd(stream); }
};

// Reads on past the block so that zlib reaches the stream's end and checks its checksum.
bool checksumHolds(std::istream& in, z_stream& stream, std::uint64_t& left) {
  unsigned char chunk[chunkBytes];
  unsigned char spill[64];
  for (int round = 0; round < 64; ++round) {
    if (stream.avail_in == 0) {
      in.read(reinterpret_cast<char*>(chunk),
              static_cast<std::streamsize>(std::min<std::uint64_t>(sizeof chunk, left)));
      const auto got = static_cast<uInt>(in.gcount());
      if (got == 0) return true;  // cut before its trailer: the pixels are all there
      left -= got;
      stream.next_in = chunk;
      stream.avail_in = got;
    }
    stream.next_out = spill;
    stream.avail_out = sizeof spill;
    const int result = inflate(&stream, Z_NO_FLUSH);
    if (result == Z_STREAM_END || stream.avail_out == 0) return true;  // end, or data after
    if (result != Z_OK && result != Z_BUF_ERROR) return false;
  }
  return true;
}

void inflateInto(std::istream& in, std::uint64_t compressedBytes, unsigned char* out,
                 std::uint64_t bytes, const std::string& path) {
  z_stream stream = {};
  if (inflateInit2(&stream, 15 + 32) != Z_OK) throw ImageFileError(path, "zlib could not start");
  const std::unique_ptr<z_stream, InflateEnd> owner(&stream);
  std::uint64_t left =
      compressedBytes == 0 ? std::numeric_limits<std::uint64_t>::max() : compressedBytes;
  unsigned char chunk[chunkBytes];
  std::uint64_t produced = 0;
  int result = Z_OK;
  while (produced < bytes && result != Z_STREAM_END) {
    if (stream.avail_in == 0) {
      in.read(reinterpret_cast<char*>(chunk),
              static_cast<std::streamsize>(std::min<std::uint64_t>(sizeof chunk, left)));
      const auto got = static_cast<uInt>(in.gcount());
      if (got == 0) break;
      left -= got;
      stream.next_in = chunk;
      stream.avail_in = got;
    }
    stream.next_out = out + produced;
    stream.avail_out = static_cast<uInt>(std::min<std::uint64_t>(bytes - produced, UINT_MAX));
    const uInt before = stream.avail_out;
    result = inflate(&stream, Z_NO_FLUSH);
    produced += before - stream.avail_out;
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) break;
  }
  if (produced < bytes) {
    throw ImageFileError(path, "the compressed pixel data ends before the " +
                                   std::to_string(bytes) +
                                   " bytes the header claims, or is corrupt");
  }
  if (result != Z_STREAM_END && !checksumHolds(in, stream, left)) {
    throw ImageFileError(path, "corrupt compressed pixel data (its check fails)");
  }
}

std::vector<unsigned char> deflated(const unsigned char* data, std::uint64_t bytes, bool gzip,
                                    const std::string& target) {
  z_stream stream = {};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzip ? 31 : 15, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    throw ImageFileError(target, "zlib could not start");
  }
  std::vector<unsigned char> out(deflateBound(&stream, static_cast<uLong>(bytes)));
  std::uint64_t consumed = 0;
  int result = Z_OK;
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(std::min<std::uint64_t>(out.size(), UINT_MAX));
  while (result == Z_OK) {
    const std::uint64_t piece = std::min<std::uint64_t>(bytes - consumed, 1u << 30);
    stream.next_in = const_cast<unsigned char*>(data + consumed);
    stream.avail_in = static_cast<uInt>(piece);
    const bool last = consumed + piece == bytes;
    result = deflate(&stream, last ? Z_FINISH : Z_NO_FLUSH);
    consumed += piece - stream.avail_in;
    if (stream.avail_out == 0) {
      const std::size_t done = out.size();
      out.resize(done + chunkBytes);
      stream.next_out = out.data() + done;
      stream.avail_out = chunkBytes;
    }
  }
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw ImageFileError(target, "zlib could not compress the pixels");
  return out;
}

}  // namespace

unsigned int sampleBytes(SampleType type) {
  static const unsigned int sizes[] = {1, 1, 2, 2, 4, 4, 8, 8, 4, 8};
  return sizes[static_cast<int>(type)];
}

PixelType::Type pixelTypeOf(SampleType type) {
  if (type == SampleType::U8) return PixelType::UCHAR;
  if (type == SampleType::I16) return PixelType::SHORT;
  return PixelType::FLOAT;
}

SampleType sampleTypeOf(PixelType::Type type, const std::string& target) {
  if (type == PixelType::UCHAR) return SampleType::U8;
  if (type == PixelType::SHORT) return SampleType::I16;
  if (type == PixelType::FLOAT) return SampleType::F32;
  throw ImageFileError(target, "the image holds no pixels of a known type");
}

RawBlock checkedBlock(const std::vector<std::uint64_t>& sizes, SampleType type,
                      std::uint64_t available, std::uint64_t fileSize, const std::string& field,
                      const std::string& path) {
  if (sizes.empty() || sizes.size() > maximumAxes) {
    throw ImageFileError(path, field + " gives " + std::to_string(sizes.size()) +
                                   " axes: expected 1 to " + std::to_string(maximumAxes));
  }
  RawBlock block;
  block.box = Box(static_cast<unsigned int>(sizes.size()));
  block.type = type;
  std::uint64_t count = 1;
  std::string shape;
  for (std::size_t axis = 0; axis < sizes.size(); ++axis) {
    if (sizes[axis] < 1 || !multiplyChecked(count, sizes[axis], count)) {
      throw ImageFileError(path, field + " " + std::to_string(sizes[axis]) +
                                     ": sizes must be positive and their product countable");
    }
    block.box.m_size[axis] = static_cast<unsigned long>(sizes[axis]);
    shape += (axis == 0 ? "" : " x ") + std::to_string(sizes[axis]);
  }
  if (!multiplyChecked(count, sampleBytes(type), block.bytes) || block.bytes > available) {
    throw ImageFileError(path, field + " claims " + shape + " " + sampleName(type) +
                                   " samples, more than the data file of " +
                                   std::to_string(fileSize) + " bytes holds");
  }
  return block;
}

void convertSamples(const unsigned char* raw, const RawBlock& block, PixelType::Type pixelType,
                    void* out) {
  if (pixelType != PixelType::FLOAT || block.type == SampleType::F32) {
    std::memcpy(out, raw, block.bytes);
  } else {
    convertToFloat(raw, block.bytes / sampleBytes(block.type), block.type,
                   static_cast<float*>(out));
  }
}

void readBlock(const std::string& dataPath, std::uint64_t offset, bool compressed,
               const RawBlock& block, const std::string& path, ImageObject& image) {
  std::ifstream in(dataPath, std::ios::binary);
  if (!in || !in.seekg(static_cast<std::streamoff>(offset))) {
    throw ImageFileError(path, "cannot open its pixel data in " + dataPath);
  }
  const PixelType::Type pixelType = pixelTypeOf(block.type);
  image.Allocate(pixelType, block.box);
  const bool direct = block.type == SampleType::U8 || block.type == SampleType::I16 ||
                      block.type == SampleType::F32;  // stored as the image keeps them
  std::vector<unsigned char> scratch(direct ? 0 : block.bytes);
  unsigned char* target = direct ? static_cast<unsigned char*>(image.getBuffer()) : scratch.data();
  if (compressed) {
    inflateInto(in, 0, target, block.bytes, path);
  } else if (!in.read(reinterpret_cast<char*>(target), static_cast<std::streamsize>(block.bytes))) {
    throw ImageFileError(path, "the data file ends before the " + std::to_string(block.bytes) +
                                   " bytes of pixels the header claims");
  }
  if (block.bigEndian != hostIsBigEndian())
    swapSamples(target, block.bytes, sampleBytes(block.type));
  if (!direct) {
    convertToFloat(target, block.bytes / sampleBytes(block.type), block.type,
                   static_cast<float*>(image.getBuffer()));
  }
}

std::vector<unsigned char> encodedPixels(const ImageObject& image, bool compress, bool gzip,
                                         const std::string& target) {
  const SampleType type = sampleTypeOf(image.getPointType(), target);
  const std::uint64_t bytes = std::uint64_t{sampleBytes(type)} * image.getPixelNumber();
  const auto* pixels = static_cast<const unsigned char*>(image.getBuffer());
  if (!hostIsBigEndian()) {
    if (compress) return deflated(pixels, bytes, gzip, target);
    return std::vector<unsigned char>(pixels, pixels + bytes);
  }
  std::vector<unsigned char> little(pixels, pixels + bytes);
  swapSamples(little.data(), bytes, sampleBytes(type));
  return compress ? deflated(little.data(), bytes, gzip, target) : little;
}

bool isSafeDataFileName(const std::string& name) {
  if (name.empty() || name.front() == '/') return false;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < 0x20) return false;
  }
  for (const auto& part : std::filesystem::path(name)) {
    if (part == "..") return false;
  }
  return true;
}

std::string siblingPath(const std::string& path, const std::string& name) {
  return (std::filesystem::path(path).parent_path() / name).string();
}

bool parseCount(const std::string& text, std::uint64_t minimum, std::uint64_t maximum,
                std::uint64_t& value) {
  if (text.empty() || text.size() > 19) return false;
  value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value >= minimum && value <= maximum;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::string word;
  for (const char c : text) {
    if (c == ' ' || c == '\t' || c == '\r') {
      if (!word.empty()) out.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) out.push_back(word);
  return out;
}

std::uint64_t dataFileSize(const std::string& dataPath, const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(dataPath, error);
  if (!std::filesystem::exists(status)) {
    throw ImageFileError(path, "its data file " + dataPath + " is missing");
  }
  if (!std::filesystem::is_regular_file(status)) {
    throw ImageFileError(path, "its data file " + dataPath + " is not a regular file");
  }
  return std::filesystem::file_size(dataPath, error);
}

bool endsWithLowercase(const std::string& text, const std::string& end) {
  if (text.size() < end.size()) return false;
  for (std::size_t k = 0; k < end.size(); ++k) {
    const char c = text[text.size() - end.size() + k];
    if (std::tolower(static_cast<unsigned char>(c)) != end[k]) return false;
  }
  return true;
}

std::string writeDataFile(const std::vector<unsigned char>& data, const std::string& target,
                          const std::string& suffix) {
  const std::filesystem::path header(target);
  const std::string name = header.stem().string() + suffix;
  const std::string path = siblingPath(target, name);
  std::string temporary = path + ".tmpXXXXXX";
  const int descriptor = ::mkstemp(temporary.data());
  if (descriptor < 0) throw ImageFileError(target, "cannot create its data file " + path);
  ::close(descriptor);
  try {
    writeHeaderAndData("", data, temporary, target);
  } catch (...) {
    std::remove(temporary.c_str());
    throw;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw ImageFileError(target, "cannot write its data file " + path);
  }
  return name;
}

void writeHeaderAndData(const std::string& header, const std::vector<unsigned char>& data,
                        const std::string& temporary, const std::string& target) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(temporary.c_str(), "wb"),
                                                       &std::fclose);
  if (!file) throw ImageFileError(target, std::string("cannot open: ") + std::strerror(errno));
  const bool written = std::fwrite(header.data(), 1, header.size(), file.get()) == header.size() &&
                       (data.empty() ||  // fwrite's pointer must not be null
                        std::fwrite(data.data(), 1, data.size(), file.get()) == data.size());
  if (!written || std::fclose(file.release()) != 0) {
    throw ImageFileError(target, std::string("cannot write: ") + std::strerror(errno));
  }
}

}  // namespace detail
}  // namespace vorn

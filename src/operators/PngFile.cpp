// PNG through libpng. libpng reports errors by longjmp, so every call that may fail runs
// inside one of the small stage functions below, each with its own setjmp and a frame that
// holds no C++ object with a destructor; the C++ code around them only sees a false return.
#include <png.h>
#include <sys/types.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ImageFileCodecs.hpp"
#include "Parallel.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/Threads.hpp"

namespace vorn {
namespace detail {
namespace {

struct PngMessage {
  char text[256];
};

[[noreturn]] void onPngError(png_structp png, png_const_charp text) {
  PngMessage* message = static_cast<PngMessage*>(png_get_error_ptr(png));
  std::snprintf(message->text, sizeof message->text, "%s", text);
  png_longjmp(png, 1);
}

// libpng carries on after a warning (an ancillary chunk with a bad CRC is dropped, say), and
// so do we, silently.
void onPngWarning(png_structp, png_const_charp) {}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// The shape of the image, as stored in the file and as libpng will deliver it.
struct PngShape {
  png_uint_32 width;
  png_uint_32 height;
  int fileBitsPerPixel;
  int channels;  // delivered: 1 (gray) or 3 (colour)
  int bitDepth;  // delivered: 8 or 16
  png_size_t rowBytes;
};

// The reader holds no ancillary chunk (text, colour profile, time, unknown chunks...): vorn
// uses none, and skipping them unread costs no memory whatever they claim or inflate to. tRNS
// stays, as libpng needs it to expand palettes.
bool limitPngReader(png_structp png) {
  if (setjmp(png_jmpbuf(png))) return false;
  // The limit that counts for the pixels is their compressed size, checked by checkPngClaim;
  // libpng's own would refuse wide but honest images.
  png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
  png_set_chunk_malloc_max(png, maximumMetadataBytes);
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
  return true;
}

bool readPngHeader(png_structp png, png_infop info, PngShape* shape) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_info(png, info);
  shape->width = png_get_image_width(png, info);
  shape->height = png_get_image_height(png, info);
  shape->fileBitsPerPixel = png_get_channels(png, info) * png_get_bit_depth(png, info);
  return true;
}

// Palettes become RGB and low gray depths 8 bits (libpng scales them: a 1-bit white is 255);
// alpha is stripped.
bool preparePngRows(png_structp png, png_infop info, PngShape* shape) {
  if (setjmp(png_jmpbuf(png))) return false;
  const png_byte colorType = png_get_color_type(png, info);
  if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colorType == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8) {
    png_set_expand_gray_1_2_4_to_8(png);
  }
  if ((colorType & PNG_COLOR_MASK_ALPHA) != 0) png_set_strip_alpha(png);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  shape->channels = png_get_channels(png, info);
  shape->bitDepth = png_get_bit_depth(png, info);
  shape->rowBytes = png_get_rowbytes(png, info);
  return true;
}

bool readPngRows(png_structp png, png_infop info, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  png_read_end(png, info);
  return true;
}

bool writePngRows(png_structp png, png_infop info, const PngShape* shape, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
  png_set_IHDR(png, info, shape->width, shape->height, shape->bitDepth, PNG_COLOR_TYPE_GRAY,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, info);
  return true;
}

class PngReader {
 public:
  PngReader() {
    png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, onPngError, onPngWarning);
    if (png != nullptr) info = png_create_info_struct(png);
  }
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;

  png_structp png = nullptr;
  png_infop info = nullptr;
  PngMessage message = {"libpng failed"};
};

class PngWriter {
 public:
  PngWriter() {
    png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, onPngError, onPngWarning);
    if (png != nullptr) info = png_create_info_struct(png);
  }
  ~PngWriter() { png_destroy_write_struct(&png, &info); }
  PngWriter(const PngWriter&) = delete;
  PngWriter& operator=(const PngWriter&) = delete;

  png_structp png = nullptr;
  png_infop info = nullptr;
  PngMessage message = {"libpng failed"};
};

FilePtr openFile(const std::string& path, const char* mode, const std::string& target) {
  FilePtr file(std::fopen(path.c_str(), mode));
  if (!file) throw ImageFileError(target, std::string("cannot open: ") + std::strerror(errno));
  return file;
}

// A PNG's pixels live in the deflate stream of its IDAT chunks: each row a filter byte and its
// samples, interlaced or not. Checked before anything of that size is allocated.
void checkPngClaim(const PngShape& shape, std::uint64_t idatBytes, const std::string& path) {
  std::uint64_t bits = 0;
  std::uint64_t bytes = 0;
  if (!multiplyChecked(shape.width, static_cast<std::uint64_t>(shape.fileBitsPerPixel), bits) ||
      !multiplyChecked((bits + 7) / 8 + 1, shape.height, bytes)) {
    bytes = std::numeric_limits<std::uint64_t>::max();
  }
  requireInflatable(path,
                    "PNG header of " + std::to_string(shape.width) + " x " +
                        std::to_string(shape.height) + " pixels",
                    bytes, idatBytes, "of its IDAT chunks");
}

std::uint64_t bigEndian32(const unsigned char* bytes) {
  return std::uint64_t{bytes[0]} << 24 | std::uint64_t{bytes[1]} << 16 |
         std::uint64_t{bytes[2]} << 8 | bytes[3];
}

// Letters as they are, anything else as \xNN, so that a garbled chunk type stays readable.
std::string chunkType(const unsigned char* type) {
  std::string name;
  for (int k = 0; k < 4; ++k) {
    char hex[5];
    std::snprintf(hex, sizeof hex, "\\x%02x", type[k]);
    name += std::isalpha(type[k]) != 0 ? std::string(1, static_cast<char>(type[k])) : hex;
  }
  return name;
}

// A seek refills the stream's buffer, which costs more than reading through a short distance.
bool skipBytes(std::FILE* file, std::uint64_t count) {
  if (count > 65536) return ::fseeko(file, static_cast<off_t>(count), SEEK_CUR) == 0;
  char scratch[4096];
  for (std::size_t step; count > 0; count -= step) {
    step = static_cast<std::size_t>(std::min<std::uint64_t>(count, sizeof scratch));
    if (std::fread(scratch, 1, step, file) != step) return false;
  }
  return true;
}

// libpng allocates a chunk at the size it claims before reading it, so every chunk must fit in
// the rest of the file before libpng sees any. The walk reads each chunk header and steps over
// the chunk's data. Returns the bytes of the IDAT chunks, the compressed pixels.
std::uint64_t scanPngChunks(std::FILE* file, std::uint64_t fileSize, const std::string& path) {
  std::uint64_t idatBytes = 0;
  std::uint64_t position = 8;  // after the signature
  if (std::fseek(file, 8, SEEK_SET) != 0) position = fileSize;
  unsigned char head[8];
  while (position + 8 <= fileSize && std::fread(head, 1, sizeof head, file) == sizeof head) {
    const std::uint64_t length = bigEndian32(head);
    const std::uint64_t left = fileSize - position - 8;  // its data and its 4-byte CRC
    const std::uint64_t room = left < 4 ? 0 : left - 4;
    if (length > room) {  // the message is built only then: files may hold many tiny chunks
      requireWithin(path,
                    "PNG chunk " + chunkType(head + 4) + " at byte " + std::to_string(position),
                    length, room, "left in the file for it");
    }
    if (std::memcmp(head + 4, "IEND", 4) == 0) return idatBytes;
    if (std::memcmp(head + 4, "IDAT", 4) == 0) idatBytes += length;
    position += 12 + length;
    if (!skipBytes(file, length + 4)) break;
  }
  throw ImageFileError(path, "the PNG file ends after " + std::to_string(fileSize) +
                                 " bytes without an IEND chunk: it is cut short");
}

// Rounded luma 0.299 R + 0.587 G + 0.114 B, in integers so that it is exact.
std::uint32_t luma(std::uint32_t r, std::uint32_t g, std::uint32_t b) {
  return (299 * r + 587 * g + 114 * b + 500) / 1000;
}

std::uint32_t sample(const png_byte* row, png_uint_32 index, int bitDepth) {
  if (bitDepth == 8) return row[index];
  return (static_cast<std::uint32_t>(row[2 * index]) << 8) | row[2 * index + 1];
}

std::uint32_t grayValue(const png_byte* row, png_uint_32 x, const PngShape& shape) {
  if (shape.channels == 1) return sample(row, x, shape.bitDepth);
  return luma(sample(row, 3 * x, shape.bitDepth), sample(row, 3 * x + 1, shape.bitDepth),
              sample(row, 3 * x + 2, shape.bitDepth));
}

// Rows on the library's thread count: a reader has no parameter of its own for it.
template <class T>
void convertRows(const std::vector<png_byte>& decoded, const PngShape& shape, T* out) {
  detail::parallelFor(threadCount(), shape.height, detail::grainFor(shape.width),
                      [&](std::size_t begin, std::size_t end) {
                        for (std::size_t y = begin; y < end; ++y) {
                          const png_byte* row = decoded.data() + y * shape.rowBytes;
                          T* line = out + y * shape.width;
                          for (png_uint_32 x = 0; x < shape.width; ++x) {
                            line[x] = static_cast<T>(grayValue(row, x, shape));
                          }
                        }
                      });
}

std::vector<png_bytep> rowPointers(png_bytep first, const PngShape& shape) {
  std::vector<png_bytep> rows(shape.height);
  for (png_uint_32 y = 0; y < shape.height; ++y) rows[y] = first + y * shape.rowBytes;
  return rows;
}

void decodePixels(PngReader& reader, const PngShape& shape, const std::string& path,
                  ImageObject& image) {
  Box box(2);
  box.m_size[0] = shape.width;
  box.m_size[1] = shape.height;
  const bool direct = shape.channels == 1 && shape.bitDepth == 8;
  image.Allocate(shape.bitDepth == 8 ? PixelType::UCHAR : PixelType::FLOAT, box);
  // 8-bit gray decodes straight into the image; everything else through one scratch copy.
  std::vector<png_byte> decoded(direct ? 0 : shape.height * shape.rowBytes);
  png_bytep first = direct ? static_cast<png_bytep>(image.getBuffer()) : decoded.data();
  std::vector<png_bytep> rows = rowPointers(first, shape);
  if (!readPngRows(reader.png, reader.info, rows.data())) {
    throw ImageFileError(path, std::string("bad PNG data: ") + reader.message.text);
  }
  if (direct) return;
  if (shape.bitDepth == 8) {
    convertRows(decoded, shape, static_cast<unsigned char*>(image.getBuffer()));
  } else {
    convertRows(decoded, shape, static_cast<float*>(image.getBuffer()));
  }
}

// Rounded half away from zero and clamped; NaN and everything not above 0 write 0.
png_uint_16 to16Bits(double value) {
  if (!(value > 0.0)) return 0;
  if (value >= 65535.0) return 65535;
  return static_cast<png_uint_16>(std::round(value));
}

template <class T>
std::vector<png_byte> bigEndian16(const T* pixels, unsigned long count) {
  std::vector<png_byte> bytes(2 * count);
  for (unsigned long k = 0; k < count; ++k) {
    const png_uint_16 value = to16Bits(pixels[k]);
    bytes[2 * k] = static_cast<png_byte>(value >> 8);
    bytes[2 * k + 1] = static_cast<png_byte>(value & 0xff);
  }
  return bytes;
}

PngShape writableShape(const ImageObject& image, const std::string& target) {
  const PixelType::Type type = image.getPointType();
  if (type != PixelType::UCHAR && type != PixelType::SHORT && type != PixelType::FLOAT) {
    throw ImageFileError(target, "the image holds no pixels of a known type");
  }
  if (image.getDimension() != 2) {
    throw ImageFileError(target, "PNG holds 2-D images only, this image has " +
                                     std::to_string(image.getDimension()) + " axes");
  }
  const Box& box = image.getBufferedRegion();
  for (unsigned int axis = 0; axis < 2; ++axis) {
    if (box.m_size[axis] < 1 || box.m_size[axis] > PNG_UINT_31_MAX) {
      throw ImageFileError(
          target, "axis size " + std::to_string(box.m_size[axis]) + " does not fit in a PNG");
    }
  }
  PngShape shape = {};
  shape.width = static_cast<png_uint_32>(box.m_size[0]);
  shape.height = static_cast<png_uint_32>(box.m_size[1]);
  shape.channels = 1;
  shape.bitDepth = type == PixelType::UCHAR ? 8 : 16;
  shape.rowBytes =
      static_cast<png_size_t>(shape.width) * static_cast<png_size_t>(shape.bitDepth / 8);
  return shape;
}

std::vector<png_byte> samplesToWrite(const ImageObject& image) {
  const unsigned long count = image.getPixelNumber();
  if (image.getPointType() == PixelType::SHORT) {
    return bigEndian16(static_cast<const short*>(image.getBuffer()), count);
  }
  if (image.getPointType() == PixelType::FLOAT) {
    return bigEndian16(static_cast<const float*>(image.getBuffer()), count);
  }
  return {};  // UCHAR rows are written from the image's own buffer
}

void closeChecked(FilePtr& file, const std::string& target) {
  const bool failed = std::ferror(file.get()) != 0;
  const int closed = std::fclose(file.release());
  if (failed || closed != 0) {
    throw ImageFileError(target, std::string("cannot write: ") + std::strerror(errno));
  }
}

}  // namespace

bool isPngSignature(const unsigned char* bytes, std::size_t count) {
  return count >= 8 && png_sig_cmp(bytes, 0, 8) == 0;
}

void readPngFile(const std::string& path, std::uint64_t fileSize, ImageObject& image) {
  FilePtr file = openFile(path, "rb", path);
  const std::uint64_t idatBytes = scanPngChunks(file.get(), fileSize, path);
  std::rewind(file.get());
  PngReader reader;
  if (reader.info == nullptr || !limitPngReader(reader.png)) {
    throw ImageFileError(path, "libpng could not start");
  }
  png_init_io(reader.png, file.get());
  PngShape shape = {};
  if (!readPngHeader(reader.png, reader.info, &shape)) {
    throw ImageFileError(path, std::string("bad PNG header: ") + reader.message.text);
  }
  checkPngClaim(shape, idatBytes, path);
  if (!preparePngRows(reader.png, reader.info, &shape)) {
    throw ImageFileError(path, std::string("bad PNG: ") + reader.message.text);
  }
  decodePixels(reader, shape, path, image);
}

void writePngFile(const ImageObject& image, const std::string& temporary,
                  const std::string& target) {
  const PngShape shape = writableShape(image, target);
  std::vector<png_byte> samples = samplesToWrite(image);
  png_bytep first = samples.empty() ? static_cast<png_bytep>(const_cast<void*>(image.getBuffer()))
                                    : samples.data();
  std::vector<png_bytep> rows = rowPointers(first, shape);
  FilePtr file = openFile(temporary, "wb", target);
  PngWriter writer;
  if (writer.info == nullptr) throw ImageFileError(target, "libpng could not start");
  png_init_io(writer.png, file.get());
  if (!writePngRows(writer.png, writer.info, &shape, rows.data())) {
    throw ImageFileError(target, std::string("cannot write PNG: ") + writer.message.text);
  }
  closeChecked(file, target);
}

}  // namespace detail
}  // namespace vorn

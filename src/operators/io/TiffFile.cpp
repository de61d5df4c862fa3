// TIFF through libtiff: gray, RGB and palette pages of 8- to 64-bit integer or float samples,
// striped or tiled, any compression libtiff decodes, classic or BigTIFF. Pages of one size
// read as a 3-D stack. libtiff's errors reach a per-file handler that keeps the message, so
// every failure becomes an ImageFileError naming the file.
#include <tiffio.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ImageFileCodecs.hpp"
#include "RawSamples.hpp"

namespace vorn {
namespace detail {
namespace {

struct TiffMessage {
  std::string text = "libtiff failed";
};

int keepError(TIFF*, void* user, const char* module, const char* format, va_list arguments) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  static_cast<TiffMessage*>(user)->text = std::string(module ? module : "libtiff") + ": " + text;
  return 1;
}

int ignoreWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

// The most bytes a page's compressed data can expand to, per byte (deflate 1032:1; LZW codes
// of 12 bits stand for at most 4096 bytes; JPEG's sparsest block about as much).
std::uint64_t expansion(std::uint16_t compression) {
  if (compression == COMPRESSION_NONE) return 1;
  if (compression == COMPRESSION_PACKBITS) return 64;
  if (compression == COMPRESSION_DEFLATE || compression == COMPRESSION_ADOBE_DEFLATE) return 1032;
  return 4096;
}

TiffPtr openTiff(const std::string& path, const char* mode, std::uint64_t maximumAllocation,
                 TiffMessage& message) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, keepError, &message);
  TIFFOpenOptionsSetWarningHandlerExtR(options, ignoreWarning, nullptr);
  if (maximumAllocation > 0) {
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, static_cast<tmsize_t>(maximumAllocation));
  }
  TiffPtr tiff(TIFFOpenExt(path.c_str(), mode, options));
  TIFFOpenOptionsFree(options);
  return tiff;
}

// What a page holds; every page of a stack must hold the same.
struct PageShape {
  std::uint32_t width = 0, height = 0;
  std::uint16_t samples = 1, bits = 8, format = SAMPLEFORMAT_UINT, photometric = 0;
  std::uint16_t planar = PLANARCONFIG_CONTIG, compression = COMPRESSION_NONE;
  bool operator!=(const PageShape& other) const {
    return width != other.width || height != other.height || samples != other.samples ||
           bits != other.bits || format != other.format || photometric != other.photometric;
  }
};

PageShape shapeOf(TIFF* tiff) {
  PageShape shape;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &shape.width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &shape.height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &shape.samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &shape.bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &shape.format);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &shape.planar);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &shape.compression);
  if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &shape.photometric)) {
    shape.photometric = shape.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
  }
  return shape;
}

SampleType sampleTypeOfPage(const PageShape& shape, const std::string& path) {
  const std::uint16_t f = shape.format == SAMPLEFORMAT_VOID ? SAMPLEFORMAT_UINT : shape.format;
  const std::uint16_t b = shape.bits;
  if (f == SAMPLEFORMAT_UINT && (b == 8 || b == 16 || b == 32 || b == 64)) {
    return b == 8    ? SampleType::U8
           : b == 16 ? SampleType::U16
           : b == 32 ? SampleType::U32
                     : SampleType::U64;
  }
  if (f == SAMPLEFORMAT_INT && (b == 8 || b == 16 || b == 32 || b == 64)) {
    return b == 8    ? SampleType::I8
           : b == 16 ? SampleType::I16
           : b == 32 ? SampleType::I32
                     : SampleType::I64;
  }
  if (f == SAMPLEFORMAT_IEEEFP && (b == 32 || b == 64))
    return b == 32 ? SampleType::F32 : SampleType::F64;
  throw ImageFileError(path, "TIFF samples of " + std::to_string(b) + " bits in sample format " +
                                 std::to_string(f) +
                                 " are not supported (8 to 64-bit integers, 32 or 64-bit floats)");
}

// Gray keeps its samples; RGB (alpha and extra samples dropped) and palette pages become luma.
bool isColour(const PageShape& shape, const std::string& path) {
  if (shape.photometric == PHOTOMETRIC_MINISBLACK || shape.photometric == PHOTOMETRIC_MINISWHITE) {
    if (shape.samples == 1 || shape.planar == PLANARCONFIG_CONTIG) return false;
  }
  // libtiff turns JPEG's YCbCr into RGB; other YCbCr data is subsampled and not read.
  const bool rgb =
      shape.photometric == PHOTOMETRIC_RGB ||
      (shape.photometric == PHOTOMETRIC_YCBCR && shape.compression == COMPRESSION_JPEG);
  if (rgb && shape.samples >= 3 && shape.planar == PLANARCONFIG_CONTIG) {
    return true;
  }
  if (shape.photometric == PHOTOMETRIC_PALETTE && shape.samples == 1 && shape.bits <= 16)
    return true;
  throw ImageFileError(path, "TIFF photometric " + std::to_string(shape.photometric) + " with " +
                                 std::to_string(shape.samples) + " samples per pixel (planar " +
                                 std::to_string(shape.planar) + ") is not supported");
}

// A tile's size is claimed apart from the page's, so it is bounded as libtiff's own buffers are.
void requireTileWithin(TIFF* tiff, std::uint64_t cap, const std::string& path) {
  std::uint32_t width = 0, height = 0;
  TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_TILELENGTH, &height);
  const std::uint64_t bytes = TIFFTileSize64(tiff);
  if (width == 0 || height == 0 || bytes == 0 || bytes > cap)
    throw ImageFileError(path, "TIFF tiles of " + std::to_string(width) + " x " +
                                   std::to_string(height) + " pixels (" + std::to_string(bytes) +
                                   " bytes) are empty or larger than the " + std::to_string(cap) +
                                   " bytes a tile of this file may hold");
}

// One page decoded into `out`: its rows one after the other, samples as the file holds them.
bool decodePage(TIFF* tiff, const PageShape& shape, std::uint64_t rowBytes, unsigned char* out) {
  if (!TIFFIsTiled(tiff)) {
    for (std::uint32_t row = 0; row < shape.height; ++row) {
      if (TIFFReadScanline(tiff, out + row * rowBytes, row, 0) < 0) return false;
    }
    return true;
  }
  std::uint32_t tileWidth = 0, tileHeight = 0;
  TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileWidth);
  TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileHeight);
  std::vector<unsigned char> tile(static_cast<std::size_t>(TIFFTileSize64(tiff)));
  const std::uint64_t pixelBytes = rowBytes / shape.width;
  for (std::uint32_t y = 0; y < shape.height; y += tileHeight) {
    for (std::uint32_t x = 0; x < shape.width; x += tileWidth) {
      if (TIFFReadTile(tiff, tile.data(), x, y, 0, 0) < 0) return false;
      const std::uint32_t rows = std::min(tileHeight, shape.height - y);
      const std::uint64_t bytes = std::min(tileWidth, shape.width - x) * pixelBytes;
      for (std::uint32_t r = 0; r < rows; ++r) {
        std::memcpy(out + (y + r) * rowBytes + x * pixelBytes,
                    tile.data() + r * tileWidth * pixelBytes, bytes);
      }
    }
  }
  return true;
}

template <class T>
double sampleAt(const unsigned char* bytes, std::uint64_t index) {
  T value;
  std::memcpy(&value, bytes + index * sizeof(T), sizeof(T));
  return static_cast<double>(value);
}

double sampleValue(const unsigned char* bytes, std::uint64_t index, SampleType type) {
  switch (type) {
    case SampleType::U8:
      return sampleAt<std::uint8_t>(bytes, index);
    case SampleType::I8:
      return sampleAt<std::int8_t>(bytes, index);
    case SampleType::U16:
      return sampleAt<std::uint16_t>(bytes, index);
    case SampleType::I16:
      return sampleAt<std::int16_t>(bytes, index);
    case SampleType::U32:
      return sampleAt<std::uint32_t>(bytes, index);
    case SampleType::I32:
      return sampleAt<std::int32_t>(bytes, index);
    case SampleType::U64:
      return sampleAt<std::uint64_t>(bytes, index);
    case SampleType::I64:
      return sampleAt<std::int64_t>(bytes, index);
    case SampleType::F32:
      return sampleAt<float>(bytes, index);
    case SampleType::F64:
      return sampleAt<double>(bytes, index);
  }
  return 0.0;
}

// Luma 0.299 R + 0.587 G + 0.114 B; integer samples rounded as the PNG reader does.
double luma(double r, double g, double b, bool integer) {
  if (integer) return std::floor((299 * r + 587 * g + 114 * b + 500) / 1000);
  return 0.299 * r + 0.587 * g + 0.114 * b;
}

struct Palette {
  std::uint16_t* red = nullptr;
  std::uint16_t* green = nullptr;
  std::uint16_t* blue = nullptr;
};

template <class T>
void storeColour(const unsigned char* page, const PageShape& shape, SampleType type,
                 const Palette& palette, T* out) {
  const std::uint64_t pixels = std::uint64_t{shape.width} * shape.height;
  const bool integer = type != SampleType::F32 && type != SampleType::F64;
  for (std::uint64_t k = 0; k < pixels; ++k) {
    if (palette.red != nullptr) {  // 16-bit palette entries, kept as 8 bits for 8-bit indices
      const auto index = static_cast<std::size_t>(sampleValue(page, k, type));
      const int shift = shape.bits == 8 ? 8 : 0;
      out[k] = static_cast<T>(luma(palette.red[index] >> shift, palette.green[index] >> shift,
                                   palette.blue[index] >> shift, true));
      continue;
    }
    const std::uint64_t first = k * shape.samples;
    out[k] = static_cast<T>(luma(sampleValue(page, first, type), sampleValue(page, first + 1, type),
                                 sampleValue(page, first + 2, type), integer));
  }
}

// The stack's pixel type: gray keeps the sample type's rule; colour is UCHAR for 8-bit
// samples, FLOAT otherwise.
PixelType::Type stackType(SampleType type, bool colour) {
  if (!colour) return pixelTypeOf(type);
  return type == SampleType::U8 ? PixelType::UCHAR : PixelType::FLOAT;
}

void storePage(const unsigned char* page, const PageShape& shape, SampleType type, bool colour,
               const Palette& palette, PixelType::Type pixelType, void* out) {
  const std::uint64_t pixels = std::uint64_t{shape.width} * shape.height;
  if (!colour) {
    RawBlock block;
    block.type = type;
    block.bytes = pixels * sampleBytes(type);
    convertSamples(page, block, pixelType, out);
  } else if (pixelType == PixelType::UCHAR) {
    storeColour(page, shape, type, palette, static_cast<unsigned char*>(out));
  } else {
    storeColour(page, shape, type, palette, static_cast<float*>(out));
  }
}

void checkClaim(const PageShape& shape, std::uint32_t pages, std::uint64_t fileSize,
                const std::string& path) {
  std::uint64_t bytes = shape.bits / 8;
  const bool counted =
      multiplyChecked(bytes, shape.width, bytes) && multiplyChecked(bytes, shape.height, bytes) &&
      multiplyChecked(bytes, shape.samples, bytes) && multiplyChecked(bytes, pages, bytes);
  std::uint64_t available = 0;
  if (!multiplyChecked(fileSize, expansion(shape.compression), available))
    available = ~std::uint64_t{0};
  if (!counted || bytes > available || shape.width == 0 || shape.height == 0) {
    throw ImageFileError(
        path, "TIFF claims " + std::to_string(pages) + " pages of " + std::to_string(shape.width) +
                  " x " + std::to_string(shape.height) + " pixels of " +
                  std::to_string(shape.samples) + " samples of " + std::to_string(shape.bits) +
                  " bits, more than the file of " + std::to_string(fileSize) + " bytes can hold");
  }
}

// Millimetres per resolution unit, the unit of DICOM's spacing; 1 for the unit-less "none".
double millimetresPerUnit(std::uint16_t unit) {
  if (unit == RESUNIT_INCH) return 25.4;
  if (unit == RESUNIT_CENTIMETER) return 10.0;
  return 1.0;
}

void setResolution(TIFF* tiff, ImageObject& image) {
  float resolution[2] = {0.0f, 0.0f};
  std::uint16_t unit = RESUNIT_INCH;  // TIFF's default when the tag is missing
  TIFFGetField(tiff, TIFFTAG_XRESOLUTION, &resolution[0]);
  TIFFGetField(tiff, TIFFTAG_YRESOLUTION, &resolution[1]);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_RESOLUTIONUNIT, &unit);
  for (unsigned int axis = 0; axis < 2; ++axis) {
    const double spacing = millimetresPerUnit(unit) / resolution[axis];
    if (std::isfinite(spacing) && spacing > 0.0) image.setSpacing(axis, spacing);
  }
}

}  // namespace

bool isTiffSignature(const unsigned char* head, std::size_t count) {
  if (count < 4) return false;
  const bool little =
      head[0] == 'I' && head[1] == 'I' && (head[2] == 42 || head[2] == 43) && head[3] == 0;
  const bool big =
      head[0] == 'M' && head[1] == 'M' && head[2] == 0 && (head[3] == 42 || head[3] == 43);
  return little || big;
}

void readTiffFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions&,
                  ImageObject& image) {
  TiffMessage message;
  const std::uint64_t cap = std::max<std::uint64_t>(inflateBound(fileSize), std::uint64_t{1} << 24);
  const TiffPtr tiff = openTiff(path, "r", cap, message);
  if (!tiff) throw ImageFileError(path, "bad TIFF: " + message.text);
  const tdir_t pages = TIFFNumberOfDirectories(tiff.get());
  const PageShape shape = shapeOf(tiff.get());
  const SampleType type = sampleTypeOfPage(shape, path);
  const bool colour = isColour(shape, path);
  checkClaim(shape, pages, fileSize, path);
  Box box(pages > 1 ? 3 : 2);
  box.m_size[0] = shape.width;
  box.m_size[1] = shape.height;
  if (pages > 1) box.m_size[2] = pages;
  const PixelType::Type pixelType = stackType(type, colour);
  image.Allocate(pixelType, box);
  const std::uint64_t rowBytes = std::uint64_t{shape.width} * shape.samples * sampleBytes(type);
  std::vector<unsigned char> page(rowBytes * shape.height);
  auto* out = static_cast<unsigned char*>(image.getBuffer());
  for (tdir_t k = 0; k < pages; ++k) {
    if (!TIFFSetDirectory(tiff.get(), k))
      throw ImageFileError(path, "bad TIFF page " + std::to_string(k + 1) + ": " + message.text);
    const PageShape other = shapeOf(tiff.get());
    if (other != shape) {
      throw ImageFileError(
          path,
          "TIFF page " + std::to_string(k + 1) +
              " differs from the first in size or samples; only pages of one kind form a stack");
    }
    if (shape.compression == COMPRESSION_JPEG && shape.photometric == PHOTOMETRIC_YCBCR) {
      TIFFSetField(tiff.get(), TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    }
    if (TIFFIsTiled(tiff.get())) requireTileWithin(tiff.get(), cap, path);
    if (!decodePage(tiff.get(), shape, rowBytes, page.data()))
      throw ImageFileError(path, "bad TIFF data: " + message.text);
    Palette palette;
    if (shape.photometric == PHOTOMETRIC_PALETTE &&
        !TIFFGetField(tiff.get(), TIFFTAG_COLORMAP, &palette.red, &palette.green, &palette.blue)) {
      throw ImageFileError(path, "TIFF palette page without its colour map");
    }
    const std::uint64_t pixels = std::uint64_t{shape.width} * shape.height;
    storePage(page.data(), shape, type, colour, palette, pixelType,
              out + k * pixels * getSizeOf(pixelType));
  }
  TIFFSetDirectory(tiff.get(), 0);
  setResolution(tiff.get(), image);
}

void writeTiffFile(const ImageObject& image, const std::string& temporary,
                   const std::string& target) {
  const SampleType type = sampleTypeOf(image.getPointType(), target);
  const unsigned int axes = image.getDimension();
  if (axes != 2 && axes != 3) {
    throw ImageFileError(target, "TIFF holds 2-D images and 3-D stacks, this image has " +
                                     std::to_string(axes) + " axes");
  }
  const Box& box = image.getBufferedRegion();
  if (box.m_size[0] > 0xffffffffUL || box.m_size[1] > 0xffffffffUL ||
      (axes == 3 && box.m_size[2] > 0xffffUL)) {
    throw ImageFileError(target, "the image is too large for TIFF");
  }
  const std::uint64_t bytes =
      std::uint64_t{getSizeOf(image.getPointType())} * image.getPixelNumber();
  TiffMessage message;
  const TiffPtr tiff =
      openTiff(temporary, bytes > (std::uint64_t{3} << 30) ? "w8" : "w", 0, message);
  if (!tiff) throw ImageFileError(target, "cannot write TIFF: " + message.text);
  const std::uint32_t width = static_cast<std::uint32_t>(box.m_size[0]);
  const std::uint32_t height = static_cast<std::uint32_t>(box.m_size[1]);
  const unsigned long pages = axes == 3 ? box.m_size[2] : 1;
  const std::uint64_t rowBytes = std::uint64_t{width} * sampleBytes(type);
  const auto* pixels = static_cast<const unsigned char*>(image.getBuffer());
  const std::uint16_t format = type == SampleType::F32   ? SAMPLEFORMAT_IEEEFP
                               : type == SampleType::I16 ? SAMPLEFORMAT_INT
                                                         : SAMPLEFORMAT_UINT;
  for (unsigned long k = 0; k < pages; ++k) {
    TIFF* t = tiff.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8 * sampleBytes(type));
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, format);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(1.0 / image.getSpacing(0)));
    TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(1.0 / image.getSpacing(1)));
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
    if (pages > 1) {
      TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
      TIFFSetField(t, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(k),
                   static_cast<std::uint16_t>(pages));
    }
    for (std::uint32_t row = 0; row < height; ++row) {
      const unsigned char* line = pixels + (k * height + row) * rowBytes;
      if (TIFFWriteScanline(t, const_cast<unsigned char*>(line), row, 0) < 0) {
        throw ImageFileError(target, "cannot write TIFF: " + message.text);
      }
    }
    if (!TIFFWriteDirectory(t)) throw ImageFileError(target, "cannot write TIFF: " + message.text);
  }
}

}  // namespace detail
}  // namespace vorn

// Reading and writing image files. Test inputs are built here by a small encoder of our own
// (uncompressed deflate blocks, bitwise CRC-32 and Adler-32), so the reader is checked against
// files libpng and zlib did not make, and corrupt files are easy to craft.
#include <gtest/gtest.h>
#include <nifti/nifti1.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "ImageFileTestSupport.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using vorn::ImageObject;
using vorn::PixelType;

namespace {

std::uint32_t crc32(const Bytes& data) {
  std::uint32_t crc = 0xffffffffu;
  for (unsigned char byte : data) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void putBig32(Bytes& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back((value >> shift) & 0xff);
}

void putLittle32(Bytes& out, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back((value >> shift) & 0xff);
}

// Deflate with stored blocks only: every byte of `data` appears as it is.
Bytes storedDeflate(const Bytes& data) {
  Bytes out;
  std::size_t at = 0;
  do {
    const std::size_t length = std::min<std::size_t>(data.size() - at, 65535);
    out.push_back(at + length == data.size() ? 1 : 0);
    for (unsigned value : {unsigned(length), unsigned(~length & 0xffff)}) {
      out.push_back(value & 0xff);
      out.push_back(value >> 8);
    }
    out.insert(out.end(), data.begin() + at, data.begin() + at + length);
    at += length;
  } while (at < data.size());
  return out;
}

Bytes zlibStream(const Bytes& data) {
  Bytes out = {0x78, 0x01};
  const Bytes deflated = storedDeflate(data);
  out.insert(out.end(), deflated.begin(), deflated.end());
  std::uint32_t a = 1, b = 0;
  for (unsigned char byte : data) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  putBig32(out, (b << 16) | a);
  return out;
}

Bytes gzipFile(const Bytes& data) {
  Bytes out = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 0xff};
  const Bytes deflated = storedDeflate(data);
  out.insert(out.end(), deflated.begin(), deflated.end());
  putLittle32(out, crc32(data));
  putLittle32(out, static_cast<std::uint32_t>(data.size()));
  return out;
}

void appendChunk(Bytes& png, const char* type, const Bytes& data) {
  putBig32(png, static_cast<std::uint32_t>(data.size()));
  Bytes chunk(type, type + 4);
  chunk.insert(chunk.end(), data.begin(), data.end());
  png.insert(png.end(), chunk.begin(), chunk.end());
  putBig32(png, crc32(chunk));
}

struct PngSpec {
  PngSpec(std::uint32_t w, std::uint32_t h, int depth, int color, int pixelBytes,
          bool adam7 = false)
      : width(w),
        height(h),
        bitDepth(depth),
        colorType(color),
        bytesPerPixel(pixelBytes),
        interlaced(adam7) {}
  std::uint32_t width, height;
  int bitDepth, colorType, bytesPerPixel;  // bytesPerPixel 0: rows given packed
  bool interlaced;
  Bytes palette;
};

// Scanlines with filter 0; interlaced images in the seven Adam7 passes.
Bytes scanlines(const PngSpec& spec, const Bytes& pixels) {
  const std::size_t rowBytes = pixels.size() / spec.height;
  if (!spec.interlaced) {
    Bytes out;
    for (std::size_t y = 0; y < spec.height; ++y) {
      out.push_back(0);
      out.insert(out.end(), pixels.begin() + y * rowBytes, pixels.begin() + (y + 1) * rowBytes);
    }
    return out;
  }
  const int passes[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                            {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
  Bytes out;
  for (const auto& p : passes) {
    for (std::uint32_t y = p[1]; y < spec.height; y += p[3]) {
      if (p[0] >= static_cast<int>(spec.width)) break;
      out.push_back(0);
      for (std::uint32_t x = p[0]; x < spec.width; x += p[2]) {
        const auto first = pixels.begin() + y * rowBytes + x * spec.bytesPerPixel;
        out.insert(out.end(), first, first + spec.bytesPerPixel);
      }
    }
  }
  return out;
}

// A PNG around `scanlines` (see above), compressed as stored deflate blocks.
Bytes pngFile(const PngSpec& spec, const Bytes& scanlineBytes) {
  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  Bytes header;
  putBig32(header, spec.width);
  putBig32(header, spec.height);
  header.insert(header.end(), {static_cast<unsigned char>(spec.bitDepth),
                               static_cast<unsigned char>(spec.colorType), 0, 0,
                               static_cast<unsigned char>(spec.interlaced ? 1 : 0)});
  appendChunk(png, "IHDR", header);
  if (!spec.palette.empty()) appendChunk(png, "PLTE", spec.palette);
  appendChunk(png, "IDAT", zlibStream(scanlineBytes));
  appendChunk(png, "IEND", {});
  return png;
}

nifti_1_header niftiHeader(std::vector<short> dims, short datatype, short bitpix) {
  nifti_1_header header;
  std::memset(&header, 0, sizeof header);
  header.sizeof_hdr = 348;
  header.dim[0] = static_cast<short>(dims.size());
  for (std::size_t k = 0; k < dims.size(); ++k) header.dim[k + 1] = dims[k];
  for (float& spacing : header.pixdim) spacing = 1.0f;
  header.datatype = datatype;
  header.bitpix = bitpix;
  header.vox_offset = 352;
  std::memcpy(header.magic, "n+1", 4);
  return header;
}

Bytes pngOf(const PngSpec& spec, const Bytes& pixels) {
  return pngFile(spec, scanlines(spec, pixels));
}

template <class T>
Bytes niftiFile(const nifti_1_header& header, const std::vector<T>& voxels) {
  Bytes out(352, 0);
  std::memcpy(out.data(), &header, sizeof header);
  const auto* raw = reinterpret_cast<const unsigned char*>(voxels.data());
  out.insert(out.end(), raw, raw + voxels.size() * sizeof(T));
  return out;
}

}  // namespace

namespace {

// Reads `file` (written to the folder first) and returns its pixels as floats.
std::vector<float> readValues(const TempFolder& folder, const Bytes& file,
                              PixelType::Type expectedType) {
  const std::string path = folder.file("input");
  writeBytes(path, file);
  ImageObject image;
  vorn::readImageFile(path, image);
  EXPECT_EQ(image.getPointType(), expectedType);
  std::vector<float> values;
  const void* pixels = image.getBuffer();
  for (unsigned long k = 0; k < image.getPixelNumber(); ++k) {
    if (expectedType == PixelType::UCHAR) {
      values.push_back(static_cast<const unsigned char*>(pixels)[k]);
    } else if (expectedType == PixelType::SHORT) {
      values.push_back(static_cast<const short*>(pixels)[k]);
    } else {
      values.push_back(static_cast<const float*>(pixels)[k]);
    }
  }
  return values;
}

template <class T>
void expectRoundTrip(const std::string& path, PixelType::Type type,
                     const std::vector<unsigned long>& sizes, const std::vector<T>& values) {
  SCOPED_TRACE(path);
  ImageObject written;
  fillImage(written, type, sizes, values);
  vorn::writeImageFile(written, path);
  ImageObject read;
  vorn::readImageFile(path, read);
  ASSERT_EQ(read.getPointType(), type);
  ASSERT_EQ(read.getDimension(), sizes.size());
  // PNG keeps no geometry; NIfTI-1 keeps an origin for the first three axes only.
  const bool png = path.size() > 4 && path.compare(path.size() - 4, 4, ".png") == 0;
  for (unsigned int axis = 0; axis < sizes.size(); ++axis) {
    EXPECT_EQ(read.getBufferedRegion().m_size[axis], sizes[axis]);
    EXPECT_EQ(read.getSpacing(axis), png ? 1.0 : written.getSpacing(axis));
    EXPECT_EQ(read.getOrigin(axis), png || axis >= 3 ? 0.0 : written.getOrigin(axis));
  }
  EXPECT_EQ(pixelBytes(read), pixelBytes(written));
}

const float notANumber = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();

}  // namespace

TEST(ImageFileNifti, RoundTripsEveryTypeAndShapeBitForBit) {
  TempFolder folder;
  for (const std::string extension : {".nii", ".nii.gz"}) {
    expectRoundTrip<unsigned char>(folder.file("u8" + extension), PixelType::UCHAR, {4, 3, 2},
                                   {0, 1, 127, 255, 9});
    expectRoundTrip<short>(folder.file("s16" + extension), PixelType::SHORT, {7},
                           {-32768, -1, 0, 300, 32767});
    expectRoundTrip<float>(folder.file("f32" + extension), PixelType::FLOAT, {2, 3, 1, 2, 2},
                           {-0.0f, 1.5f, notANumber, 3e38f, -7.25f, infinity});
    expectRoundTrip<float>(folder.file("slice" + extension), PixelType::FLOAT, {3, 2, 1}, {0.25f});
    EXPECT_EQ(readBytes(folder.file("u8" + extension))[0] == 0x1f, extension == ".nii.gz");
  }
  // The content decides the format, not the name.
  fs::rename(folder.file("s16.nii.gz"), folder.file("renamed.png"));
  ImageObject renamed;
  vorn::readImageFile(folder.file("renamed.png"), renamed);
  EXPECT_EQ(renamed.getPixelNumber(), 7u);
}

TEST(ImageFilePng, WritesUcharAs8BitAndOtherTypesAs16BitRoundedAndClamped) {
  TempFolder folder;
  expectRoundTrip<unsigned char>(folder.file("gray.png"), PixelType::UCHAR, {5, 3},
                                 {0, 1, 128, 254, 255, 7});
  ImageObject shorts;
  fillImage<short>(shorts, PixelType::SHORT, {3, 2}, {-3, 0, 1, 32767, -32768, 1000});
  ImageObject floats;
  fillImage<float>(floats, PixelType::FLOAT, {4, 2},
                   {2.5f, -3.0f, 70000.0f, notANumber, 65534.5f, 0.49f, -0.5f, infinity});
  struct Case {
    const ImageObject* image;
    std::vector<float> expected;
  } cases[] = {{&shorts, {0, 0, 1, 32767, 0, 1000}},
               {&floats, {3, 0, 65535, 0, 65535, 0, 0, 65535}}};
  for (const Case& c : cases) {
    const std::string path = folder.file("wide.png");
    vorn::writeImageFile(*c.image, path);
    const Bytes file = readBytes(path);
    EXPECT_EQ(file[24], 16);  // IHDR bit depth
    EXPECT_EQ(file[25], 0);   // gray
    EXPECT_EQ(readValues(folder, file, PixelType::FLOAT), c.expected);
  }
}

TEST(ImageFilePng, ReadsColourPaletteAlphaLowDepthAnd16BitAsGray) {
  TempFolder folder;
  // 0.299 R + 0.587 G + 0.114 B by hand: 76.245, 149.685, 29.07, 140.75.
  const std::vector<float> lumas = {76, 150, 29, 141};
  const Bytes rgb = {255, 0, 0, 0, 255, 0, 0, 0, 255, 100, 150, 200};
  EXPECT_EQ(readValues(folder, pngOf({2, 2, 8, 2, 3}, rgb), PixelType::UCHAR), lumas);
  const Bytes rgba = {255, 0, 0, 0, 0, 255, 0, 128, 0, 0, 255, 255, 100, 150, 200, 7};
  EXPECT_EQ(readValues(folder, pngOf({2, 2, 8, 6, 4}, rgba), PixelType::UCHAR), lumas);
  PngSpec palette = {2, 2, 8, 3, 1};
  palette.palette = rgb;
  EXPECT_EQ(readValues(folder, pngOf(palette, {0, 1, 2, 3}), PixelType::UCHAR), lumas);
  // 16-bit colour: 0.299 * 65535 = 19594.965; 299 + 1174 + 342 = 1815.
  const Bytes rgb16 = {0xff, 0xff, 0, 0, 0, 0, 0x03, 0xe8, 0x07, 0xd0, 0x0b, 0xb8};
  EXPECT_EQ(readValues(folder, pngOf({2, 1, 16, 2, 6}, rgb16), PixelType::FLOAT),
            (std::vector<float>{19595, 1815}));
  const Bytes gray16 = {0, 0, 0, 1, 0xff, 0xff, 0x9c, 0x40};
  EXPECT_EQ(readValues(folder, pngOf({4, 1, 16, 0, 2}, gray16), PixelType::FLOAT),
            (std::vector<float>{0, 1, 65535, 40000}));
  EXPECT_EQ(readValues(folder, pngOf({2, 1, 8, 4, 2}, {10, 255, 200, 0}), PixelType::UCHAR),
            (std::vector<float>{10, 200}));
  // 4-bit gray 0, 1, 15, 8 scaled to 8 bits (times 17).
  EXPECT_EQ(readValues(folder, pngOf({4, 1, 4, 0, 0}, {0x01, 0xf8}), PixelType::UCHAR),
            (std::vector<float>{0, 17, 255, 136}));
}

TEST(ImageFilePng, ReadsInterlacedImages) {
  TempFolder folder;
  Bytes pixels;
  std::vector<float> expected;
  for (int k = 0; k < 81; ++k) {
    pixels.push_back(static_cast<unsigned char>(3 * k));
    expected.push_back(static_cast<float>(3 * k));
  }
  // 9 x 9 reaches all seven passes.
  EXPECT_EQ(readValues(folder, pngOf({9, 9, 8, 0, 1, true}, pixels), PixelType::UCHAR), expected);
}

namespace {

template <class T>
void swapBytes(T& value) {
  auto* bytes = reinterpret_cast<unsigned char*>(&value);
  std::reverse(bytes, bytes + sizeof(T));
}

// A big-endian file as written on another machine: the fields the reader uses, swapped.
Bytes bigEndianFile(nifti_1_header header, std::vector<short> voxels) {
  swapBytes(header.sizeof_hdr);
  for (short& size : header.dim) swapBytes(size);
  for (float& spacing : header.pixdim) swapBytes(spacing);
  swapBytes(header.datatype);
  swapBytes(header.bitpix);
  swapBytes(header.vox_offset);
  swapBytes(header.qform_code);
  swapBytes(header.qoffset_x);
  for (short& voxel : voxels) swapBytes(voxel);
  return niftiFile(header, voxels);
}

}  // namespace

TEST(ImageFileNifti, ScalesConvertsOtherTypesToFloatAndReadsBigEndian) {
  TempFolder folder;
  nifti_1_header scaled = niftiHeader({4}, DT_INT16, 16);
  scaled.scl_slope = 2.0f;
  scaled.scl_inter = -1.0f;
  EXPECT_EQ(readValues(folder, niftiFile<short>(scaled, {-2, 0, 3, 100}), PixelType::FLOAT),
            (std::vector<float>{-5, -1, 5, 199}));
  nifti_1_header identity = niftiHeader({2}, DT_UINT8, 8);
  identity.scl_slope = 1.0f;
  EXPECT_EQ(readValues(folder, niftiFile<unsigned char>(identity, {7, 200}), PixelType::UCHAR),
            (std::vector<float>{7, 200}));
  const Bytes doubles =
      niftiFile<double>(niftiHeader({2, 2}, DT_FLOAT64, 64), {0.5, -1.25, 1e10, 3});
  const std::vector<float> expected = {0.5f, -1.25f, 1e10f, 3.0f};
  EXPECT_EQ(readValues(folder, doubles, PixelType::FLOAT), expected);
  EXPECT_EQ(readValues(folder, gzipFile(doubles), PixelType::FLOAT), expected);
  EXPECT_EQ(
      readValues(folder, niftiFile<std::uint16_t>(niftiHeader({2}, DT_UINT16, 16), {65535, 0}),
                 PixelType::FLOAT),
      (std::vector<float>{65535, 0}));
  EXPECT_EQ(readValues(folder, niftiFile<std::int8_t>(niftiHeader({2}, DT_INT8, 8), {-128, 5}),
                       PixelType::FLOAT),
            (std::vector<float>{-128, 5}));

  nifti_1_header big = niftiHeader({2, 1}, DT_INT16, 16);
  big.pixdim[1] = 2.5f;
  big.qform_code = 1;
  big.qoffset_x = -4.0f;
  writeBytes(folder.file("big.nii"), bigEndianFile(big, {258, -2}));
  ImageObject image;
  vorn::readImageFile(folder.file("big.nii"), image);
  ASSERT_EQ(image.getPointType(), PixelType::SHORT);
  EXPECT_EQ(static_cast<const short*>(image.getBuffer())[0], 258);
  EXPECT_EQ(static_cast<const short*>(image.getBuffer())[1], -2);
  EXPECT_EQ(image.getSpacing(0), 2.5);
  EXPECT_EQ(image.getOrigin(0), -4.0);
}

TEST(ImageFileRead, RefusesCorruptAndLyingFilesLeavingTheImageAsItWas) {
  TempFolder folder;
  ImageObject source;
  std::vector<unsigned char> noise;
  for (unsigned k = 0; k < 4096; ++k) noise.push_back(static_cast<unsigned char>(k * 7919 >> 3));
  fillImage(source, PixelType::UCHAR, {64, 64}, noise);
  vorn::writeImageFile(source, folder.file("good.png"));
  const Bytes good = readBytes(folder.file("good.png"));
  const std::size_t idat = std::search(good.begin(), good.end(), "IDAT", "IDAT" + 4) - good.begin();
  const std::size_t idatLength = (good[idat - 2] << 8) | good[idat - 1];
  Bytes flipped = good, badCrc = good;
  flipped[idat + 20] ^= 0x40;
  badCrc[idat + 4 + idatLength] ^= 0x01;
  auto header = [](std::vector<short> dims, short datatype = DT_FLOAT32) {
    return niftiHeader(dims, datatype, 32);
  };
  nifti_1_header axes0 = header({4}), axes8 = header({4}), far = header({4});
  axes0.dim[0] = 0;
  axes8.dim[0] = 8;
  far.vox_offset = 1e9f;
  const std::vector<float> four(4, 1.0f);
  // zlib checks the gzip trailer while the voxels are read, or on the read just after them.
  Bytes badGzipCheck = gzipFile(niftiFile(header({100, 100}), std::vector<float>(10000)));
  badGzipCheck[badGzipCheck.size() - 8] ^= 0x01;  // the CRC of the gzip trailer
  const std::string text = "just some text, no image here\n";
  const struct {
    std::string name;
    Bytes bytes;
    std::string problem;
  } cases[] = {
      {"empty.png", {}, "empty file"},
      {"text.nii", Bytes(text.begin(), text.end()), "not a PNG or NIfTI-1 file"},
      {"text.nii.gz", gzipFile(Bytes(text.begin(), text.end())), "not a PNG or NIfTI-1 file"},
      {"half.png", Bytes(good.begin(), good.begin() + good.size() / 2), "bad PNG"},
      {"flipped.png", flipped, "bad PNG"},
      {"crc.png", badCrc, "CRC error"},
      {"huge.png", pngFile({100000, 100000, 8, 0, 1}, Bytes(16, 0)), "100000 x 100000"},
      {"overflow.nii", niftiFile(header({32767, 32767, 32767, 32767, 32767, 32767, 32767}), four),
       "multiply"},
      {"short.nii", niftiFile(header({100, 100, 100}), four), "more than the file"},
      {"short.nii.gz", gzipFile(niftiFile(header({10, 10, 10}), four)), "ends before"},
      {"crc.nii.gz", badGzipCheck, "corrupt"},
      {"huge.nii.gz", gzipFile(niftiFile(header({1000, 1000, 1000}), four)), "more than the file"},
      {"axes0.nii", niftiFile(axes0, four), "dim[0] = 0"},
      {"axes8.nii", niftiFile(axes8, four), "dim[0] = 8"},
      {"negative.nii", niftiFile(header({2, -2}), four), "dim[2] = -2"},
      {"unknown.nii", niftiFile(header({4}, 3), four), "unknown NIfTI data type 3"},
      {"complex.nii", niftiFile(header({2}, DT_COMPLEX64), four), "unsupported NIfTI data type"},
      {"offset.nii", niftiFile(far, four), "vox_offset"},
  };
  ImageObject image;
  fillImage<unsigned char>(image, PixelType::UCHAR, {2, 2}, {1, 2, 3, 4});
  const void* buffer = image.getBuffer();
  auto expectRefused = [&](const std::string& path, const std::string& problem) {
    SCOPED_TRACE(path);
    try {
      vorn::readImageFile(path, image);
      ADD_FAILURE() << "no exception";
    } catch (const vorn::ImageFileError& error) {
      EXPECT_EQ(std::string(error.what()).rfind(path + ": ", 0), 0u) << error.what();
      EXPECT_NE(std::string(error.what()).find(problem), std::string::npos) << error.what();
    }
    EXPECT_EQ(image.getBuffer(), buffer);
    EXPECT_EQ(image.getPointType(), PixelType::UCHAR);
    EXPECT_EQ(pixelBytes(image), (std::vector<char>{1, 2, 3, 4}));
  };
  for (const auto& c : cases) {
    writeBytes(folder.file(c.name), c.bytes);
    expectRefused(folder.file(c.name), c.problem);
  }
  expectRefused(folder.file("missing.png"), "no such file");
  expectRefused(folder.path().string(), "not a regular file");
}

TEST(ImageFileWrite, FailuresLeaveNoFileAndKeepAnExistingTarget) {
  TempFolder folder;
  ImageObject flat, volume, line, empty;
  fillImage<unsigned char>(flat, PixelType::UCHAR, {3, 2}, {9});
  fillImage<unsigned char>(volume, PixelType::UCHAR, {2, 2, 2}, {9});
  fillImage<unsigned char>(line, PixelType::UCHAR, {40000}, {9});
  const std::string target = folder.file("kept.png");
  vorn::writeImageFile(flat, target);
  const Bytes before = readBytes(target);
  const struct {
    const ImageObject* image;
    std::string path;
    std::string problem;
  } cases[] = {
      {&flat, folder.file("image.tif"), "extension"},
      {&flat, folder.file("image.gz"), "extension"},
      {&volume, target, "2-D images only"},
      {&line, folder.file("line.nii"), "32767"},
      {&empty, folder.file("empty.nii.gz"), "no pixels"},
      {&flat, folder.file("missing/image.png"), "temporary file"},
  };
  for (const auto& c : cases) {
    try {
      vorn::writeImageFile(*c.image, c.path);
      ADD_FAILURE() << c.path << ": no exception";
    } catch (const vorn::ImageFileError& error) {
      EXPECT_EQ(std::string(error.what()).rfind(c.path + ": ", 0), 0u) << error.what();
      EXPECT_NE(std::string(error.what()).find(c.problem), std::string::npos) << error.what();
    }
  }
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"kept.png"});
  EXPECT_EQ(readBytes(target), before);
}

TEST(ImageFileWrite, NewFilesGetTheUsualPermissionsAndUppercaseExtensionsWork) {
  TempFolder folder;
  ImageObject flat;
  fillImage<unsigned char>(flat, PixelType::UCHAR, {3, 2}, {9});
  const mode_t previous = ::umask(027);
  vorn::writeImageFile(flat, folder.file("image.NII.GZ"));
  ::umask(previous);
  struct stat status = {};
  ASSERT_EQ(::stat(folder.file("image.NII.GZ").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
  EXPECT_EQ(readBytes(folder.file("image.NII.GZ"))[0], 0x1f);
}

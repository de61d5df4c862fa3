// Reading and writing image files, and the reader and writer operators. Sample PNGs come from
// libpng and gzip files from zlib; corrupt files are good ones with bytes edited or cut off.
#include <gtest/gtest.h>
#include <nifti/nifti1.h>
#include <png.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "OperatorTestSupport.hpp"
#include "TestOperators.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"

namespace fs = std::filesystem;
using vorn::ImageObject;
using vorn::PixelType;

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

enum ColorType {
  kGray = PNG_COLOR_TYPE_GRAY,
  kGrayAlpha = PNG_COLOR_TYPE_GRAY_ALPHA,
  kRgb = PNG_COLOR_TYPE_RGB,
  kRgba = PNG_COLOR_TYPE_RGBA,
  kPalette = PNG_COLOR_TYPE_PALETTE
};

struct PngShape {
  png_uint_32 width, height;
  int bitDepth, colorType, interlace;
};

void appendBytes(png_structp png, png_bytep data, png_size_t length) {
  Bytes* out = static_cast<Bytes*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}

// libpng reports errors by longjmp: nothing in this frame has a destructor.
bool encodePng(png_structp png, png_infop info, const PngShape* shape, const Bytes* palette,
               png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_IHDR(png, info, shape->width, shape->height, shape->bitDepth, shape->colorType,
               shape->interlace, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!palette->empty()) {
    png_set_PLTE(png, info, reinterpret_cast<png_const_colorp>(palette->data()),
                 static_cast<int>(palette->size() / 3));
  }
  png_write_info(png, info);
  png_write_image(png, rows);  // interlaces by itself
  png_write_end(png, nullptr);
  return true;
}

// A PNG written by libpng; `rows` are packed as the file stores them, one after the other.
Bytes pngOf(png_uint_32 width, png_uint_32 height, int bitDepth, int colorType, Bytes rows,
            const Bytes& palette = {}, int interlace = PNG_INTERLACE_NONE) {
  const PngShape shape = {width, height, bitDepth, colorType, interlace};
  std::vector<png_bytep> rowStarts;
  for (png_uint_32 y = 0; y < height; ++y) rowStarts.push_back(&rows[y * rows.size() / height]);
  Bytes file;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &file, appendBytes, nullptr);
  EXPECT_TRUE(encodePng(png, info, &shape, &palette, rowStarts.data()));
  png_destroy_write_struct(&png, &info);
  return file;
}

// A PNG chunk's CRC made right again after an edit; `type` is where its type field starts.
void fixCrc(Bytes& png, std::size_t type) {
  std::uint32_t length = 0;
  for (std::size_t k = type - 4; k < type; ++k) length = length << 8 | png[k];
  const uLong crc = crc32(0, png.data() + type, length + 4);
  for (unsigned k = 0; k < 4; ++k) png[type + 4 + length + k] = (crc >> (24 - 8 * k)) & 0xff;
}

Bytes gzipped(const Bytes& data) {
  const std::string path =
      (fs::temp_directory_path() / ("vorn-gz-" + std::to_string(::getpid()))).string();
  const gzFile file = gzopen(path.c_str(), "wb");
  gzwrite(file, data.data(), static_cast<unsigned>(data.size()));
  gzclose(file);
  const Bytes bytes = readBytes(path);
  std::remove(path.c_str());
  return bytes;
}

nifti_1_header niftiHeader(std::vector<short> dims, short datatype = DT_FLOAT32) {
  nifti_1_header header;
  std::memset(&header, 0, sizeof header);
  header.sizeof_hdr = 348;
  header.dim[0] = static_cast<short>(dims.size());
  std::copy(dims.begin(), dims.end(), header.dim + 1);
  std::fill(std::begin(header.pixdim), std::end(header.pixdim), 1.0f);
  header.datatype = datatype;
  header.vox_offset = 352;
  std::memcpy(header.magic, "n+1", 4);
  return header;
}

template <class T>
Bytes niftiFile(nifti_1_header header, const std::vector<T>& voxels) {
  header.bitpix = 8 * sizeof(T);
  Bytes out(352, 0);
  std::memcpy(out.data(), &header, sizeof header);
  const auto* raw = reinterpret_cast<const unsigned char*>(voxels.data());
  out.insert(out.end(), raw, raw + voxels.size() * sizeof(T));
  return out;
}

template <class T>
void swapBytes(T& value) {
  auto* bytes = reinterpret_cast<unsigned char*>(&value);
  std::reverse(bytes, bytes + sizeof(T));
}

// Writes `bytes` as `name` in the folder and reads the image back.
ImagePtr readBack(const TempFolder& folder, const std::string& name, const Bytes& bytes) {
  writeBytes(folder.file(name), bytes);
  ImagePtr image(new ImageObject);
  vorn::readImageFile(folder.file(name), *image);
  return image;
}

void expectRoundTrip(const std::string& path, const ImagePtr& written) {
  SCOPED_TRACE(path);
  vorn::writeImageFile(*written, path);
  ImageObject read;
  vorn::readImageFile(path, read);
  ASSERT_EQ(read.getPointType(), written->getPointType());
  ASSERT_EQ(read.getDimension(), written->getDimension());
  EXPECT_TRUE(read.getBufferedRegion() == written->getBufferedRegion());
  // PNG keeps no geometry; NIfTI-1 keeps an origin for the first three axes only.
  const bool png = path.compare(path.size() - 4, 4, ".png") == 0;
  for (unsigned int axis = 0; axis < written->getDimension(); ++axis) {
    EXPECT_EQ(read.getSpacing(axis), png ? 1.0 : written->getSpacing(axis));
    EXPECT_EQ(read.getOrigin(axis), png || axis >= 3 ? 0.0 : written->getOrigin(axis));
  }
  EXPECT_EQ(pixelBytes(read), pixelBytes(*written));
}

}  // namespace

TEST(ImageFileWrite, RoundTripsBitForBitAndWidensOtherTypesTo16BitPng) {
  TempFolder folder;
  expectRoundTrip(folder.file("gray.png"),
                  makeImage<unsigned char>({5, 3}, {0, 1, 128, 254, 255, 7}));
  for (const std::string extension : {".nii", ".nii.gz"}) {
    expectRoundTrip(folder.file("u8" + extension),
                    makeImage<unsigned char>({4, 3, 2}, {0, 1, 127, 255, 9}));
    expectRoundTrip(folder.file("s16" + extension),
                    makeImage<short>({7}, {-32768, -1, 0, 300, 32767}));
    expectRoundTrip(folder.file("f32" + extension),
                    makeImage<float>({2, 3, 1, 2, 2}, {-0.0f, 1.5f, kNaN, 3e38f, -7.25f, kInf}));
    expectRoundTrip(folder.file("slice" + extension), makeImage<float>({3, 2, 1}, {0.25f}));
    EXPECT_EQ(readBytes(folder.file("u8" + extension))[0] == 0x1f, extension == ".nii.gz");
  }
  // The content decides the format, not the name.
  fs::rename(folder.file("s16.nii.gz"), folder.file("renamed.png"));
  ImageObject renamed;
  vorn::readImageFile(folder.file("renamed.png"), renamed);
  EXPECT_EQ(renamed.getPixelNumber(), 7u);

  // PNG keeps other types as 16-bit gray, rounded half away from zero and clamped.
  const struct {
    ImagePtr image;
    std::vector<double> expected;
  } wide[] = {
      {makeImage<short>({3, 2}, {-3, 0, 1, 32767, -32768, 1000}), {0, 0, 1, 32767, 0, 1000}},
      {makeImage<float>({4, 2}, {2.5f, -3.0f, 70000.0f, kNaN, 65534.5f, 0.49f, -0.5f, kInf}),
       {3, 0, 65535, 0, 65535, 0, 0, 65535}},
  };
  for (const auto& c : wide) {
    vorn::writeImageFile(*c.image, folder.file("wide.png"));
    const Bytes file = readBytes(folder.file("wide.png"));
    EXPECT_EQ(file[24], 16);  // IHDR bit depth
    EXPECT_EQ(file[25], 0);   // gray
    const ImagePtr read = readBack(folder, "wide.png", file);
    EXPECT_EQ(read->getPointType(), PixelType::FLOAT);
    EXPECT_EQ(valuesOf(*read), c.expected);
  }
}

TEST(ImageFileRead, DecodesEachPngKindAndNiftiTypeWithScaling) {
  TempFolder folder;
  const Bytes rgb = {255, 0, 0, 0, 255, 0, 0, 0, 255, 100, 150, 200};
  // 0.299 R + 0.587 G + 0.114 B by hand: 76.245, 149.685, 29.07, 140.75.
  const std::vector<double> lumas = {76, 150, 29, 141};
  Bytes ramp;
  for (int k = 0; k < 81; ++k) ramp.push_back(static_cast<unsigned char>(3 * k));
  nifti_1_header scaled = niftiHeader({4}, DT_INT16);
  scaled.scl_slope = 2.0f;
  scaled.scl_inter = -1.0f;
  nifti_1_header identity = niftiHeader({2}, DT_UINT8);
  identity.scl_slope = 1.0f;
  const Bytes doubles = niftiFile<double>(niftiHeader({2, 2}, DT_FLOAT64), {0.5, -1.25, 1e10, 3});
  const auto UCHAR = PixelType::UCHAR;
  const auto FLOAT = PixelType::FLOAT;
  const struct {
    std::string name;
    PixelType::Type type;
    std::vector<double> expected;
    Bytes file;
  } cases[] = {
      {"rgb", UCHAR, lumas, pngOf(2, 2, 8, kRgb, rgb)},
      {"rgba", UCHAR, lumas,
       pngOf(2, 2, 8, kRgba, {255, 0, 0, 0, 0, 255, 0, 128, 0, 0, 255, 255, 100, 150, 200, 7})},
      {"palette", UCHAR, lumas, pngOf(2, 2, 8, kPalette, {0, 1, 2, 3}, rgb)},
      // 16-bit colour: 0.299 * 65535 = 19594.965; 299 + 1174 + 342 = 1815.
      {"rgb16",
       FLOAT,
       {19595, 1815},
       pngOf(2, 1, 16, kRgb, {255, 255, 0, 0, 0, 0, 3, 232, 7, 208, 11, 184})},
      {"gray16",
       FLOAT,
       {0, 1, 65535, 40000},
       pngOf(4, 1, 16, kGray, {0, 0, 0, 1, 255, 255, 156, 64})},
      {"gray-alpha", UCHAR, {10, 200}, pngOf(2, 1, 8, kGrayAlpha, {10, 255, 200, 0})},
      // 4-bit gray 0, 1, 15, 8 scaled to 8 bits (times 17).
      {"gray4", UCHAR, {0, 17, 255, 136}, pngOf(4, 1, 4, kGray, {0x01, 0xf8})},
      // 9 x 9 reaches all seven passes.
      {"adam7", UCHAR, std::vector<double>(ramp.begin(), ramp.end()),
       pngOf(9, 9, 8, kGray, ramp, {}, PNG_INTERLACE_ADAM7)},
      {"scaled.nii", FLOAT, {-5, -1, 5, 199}, niftiFile<short>(scaled, {-2, 0, 3, 100})},
      {"identity.nii", UCHAR, {7, 200}, niftiFile<unsigned char>(identity, {7, 200})},
      {"double.nii", FLOAT, {0.5, -1.25, 1e10f, 3}, doubles},
      {"double.nii.gz", FLOAT, {0.5, -1.25, 1e10f, 3}, gzipped(doubles)},
      {"uint16.nii",
       FLOAT,
       {65535, 0},
       niftiFile<std::uint16_t>(niftiHeader({2}, DT_UINT16), {65535, 0})},
      {"int8.nii", FLOAT, {-128, 5}, niftiFile<std::int8_t>(niftiHeader({2}, DT_INT8), {-128, 5})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ImagePtr image = readBack(folder, c.name, c.file);
    EXPECT_EQ(image->getPointType(), c.type);
    EXPECT_EQ(valuesOf(*image), c.expected);
  }
}

// Written on another machine: the fields the reader uses, and the voxels, swapped.
TEST(ImageFileNifti, ReadsBigEndianFiles) {
  TempFolder folder;
  nifti_1_header header = niftiHeader({2, 1, 1}, DT_INT16);
  header.pixdim[1] = 2.5f;
  header.pixdim[2] = -3.0f;  // its magnitude counts
  header.pixdim[3] = 0.0f;   // unusable: 1
  header.qform_code = 1;
  header.qoffset_x = -4.0f;
  swapBytes(header.sizeof_hdr);
  for (short& size : header.dim) swapBytes(size);
  for (float& spacing : header.pixdim) swapBytes(spacing);
  for (short* field : {&header.datatype, &header.qform_code}) swapBytes(*field);
  for (float* field : {&header.vox_offset, &header.qoffset_x}) swapBytes(*field);
  std::vector<short> voxels = {258, -2};
  for (short& voxel : voxels) swapBytes(voxel);
  const ImagePtr image = readBack(folder, "big.nii", niftiFile(header, voxels));
  ASSERT_EQ(image->getPointType(), PixelType::SHORT);
  EXPECT_EQ(pixelsOf<short>(*image), (std::vector<short>{258, -2}));
  EXPECT_EQ(image->getSpacing(0), 2.5);
  EXPECT_EQ(image->getSpacing(1), 3.0);
  EXPECT_EQ(image->getSpacing(2), 1.0);
  EXPECT_EQ(image->getOrigin(0), -4.0);
}

TEST(ImageFileRead, RefusesCorruptAndLyingFilesLeavingTheImageAsItWas) {
  TempFolder folder;
  Bytes noise;
  for (unsigned k = 0; k < 4096; ++k) noise.push_back(static_cast<unsigned char>(k * 7919 >> 3));
  const Bytes good = pngOf(64, 64, 8, kGray, noise);
  const std::string idatName = "IDAT";
  const std::size_t idat = static_cast<std::size_t>(
      std::search(good.begin(), good.end(), idatName.begin(), idatName.end()) - good.begin());
  Bytes flipped = good, badCrc = good, huge = good;
  flipped[idat + 20] ^= 0x40;
  fixCrc(flipped, idat);
  badCrc[idat + 4 + (std::size_t{good[idat - 2]} << 8 | good[idat - 1])] ^= 0x01;
  huge[17] = huge[21] = 0x01;  // width and height 100000 = 0x0186a0
  huge[18] = huge[22] = 0x86;
  huge[19] = huge[23] = 0xa0;
  fixCrc(huge, 12);
  // Width and height 2^31 - 1, the most PNG allows: 2^62 bytes of 8-bit gray fit in 64 bits
  // (not in any memory); as 16-bit RGBA, 8 bytes a pixel, the byte count passes 2^64.
  Bytes widest = good;
  widest[16] = widest[20] = 0x7f;
  std::fill(widest.begin() + 17, widest.begin() + 20, 0xff);
  std::fill(widest.begin() + 21, widest.begin() + 24, 0xff);
  fixCrc(widest, 12);
  Bytes widestRgba64 = widest;
  widestRgba64[24] = 16;
  widestRgba64[25] = kRgba;
  fixCrc(widestRgba64, 12);
  nifti_1_header axes0 = niftiHeader({4}), axes8 = niftiHeader({4}), far = niftiHeader({4});
  axes0.dim[0] = 0;
  axes8.dim[0] = 8;
  far.vox_offset = 1e9f;
  const std::vector<float> four(4, 1.0f);
  // zlib checks the gzip trailer while the voxels are read, or on the read just after them.
  Bytes badGzipCheck = gzipped(niftiFile(niftiHeader({100, 100}), std::vector<float>(10000)));
  badGzipCheck[badGzipCheck.size() - 8] ^= 0x01;  // the CRC in the gzip trailer
  const std::string text = "just some text, no image here\n";
  const struct {
    std::string name;
    Bytes bytes;
    std::string problem;
  } cases[] = {
      {"empty.png", {}, "empty file"},
      {"text.nii", Bytes(text.begin(), text.end()),
       "not a supported image file (DICOM, PNG, NIfTI"},
      {"text.nii.gz", gzipped(Bytes(text.begin(), text.end())), "not a PNG or NIfTI-1 file"},
      {"half.png", Bytes(good.begin(), good.begin() + static_cast<long>(good.size() / 2)),
       "PNG chunk IDAT at byte 33 claims"},
      {"flipped.png", flipped, "bad PNG"},
      {"crc.png", badCrc, "CRC error"},
      {"huge.png", huge, "100000 x 100000"},
      {"overflow.nii",
       niftiFile(niftiHeader({32767, 32767, 32767, 32767, 32767, 32767, 32767}), four), "multiply"},
      {"widest.png", widest, "2147483647 x 2147483647 pixels claims 4611686016279904256 bytes"},
      {"widest64.png", widestRgba64, "2147483647 x 2147483647 pixels claims more than 2^64"},
      // 32767^4 x 4 voxels fit in 64 bits; their bytes, as doubles, do not.
      {"overflow64.nii", niftiFile(niftiHeader({32767, 32767, 32767, 32767, 4}, DT_FLOAT64), four),
       "(4611123094243246084 voxels of 8 bytes from byte 352) claims more than 2^64"},
      {"short.nii", niftiFile(niftiHeader({100, 100, 100}), four), "bytes of the file"},
      {"short.nii.gz", gzipped(niftiFile(niftiHeader({10, 10, 10}), four)),
       "ends after 16 of the 4000 bytes"},
      {"crc.nii.gz", badGzipCheck, "corrupt"},
      {"huge.nii.gz", gzipped(niftiFile(niftiHeader({1000, 1000, 1000}), four)),
       "of the gzip file can expand to"},
      {"axes0.nii", niftiFile(axes0, four), "dim[0] = 0"},
      {"axes8.nii", niftiFile(axes8, four), "dim[0] = 8"},
      {"negative.nii", niftiFile(niftiHeader({2, -2}), four), "dim[2] = -2"},
      {"unknown.nii", niftiFile(niftiHeader({4}, 3), four), "unknown NIfTI data type 3"},
      {"complex.nii", niftiFile(niftiHeader({2}, DT_COMPLEX64), four),
       "unsupported NIfTI data type"},
      {"offset.nii", niftiFile(far, four), "from byte 1000000000)"},
      {"missing.png", {}, "no such file"},
      {"", {}, "holds no DICOM files"},  // the folder itself
  };
  ImagePtr image = makeImage<unsigned char>({2, 2}, {1, 2, 3, 4});
  const void* buffer = image->getBuffer();
  for (const auto& c : cases) {
    const std::string path = c.name.empty() ? folder.path().string() : folder.file(c.name);
    SCOPED_TRACE(path);
    if (c.name != "missing.png" && !c.name.empty()) writeBytes(path, c.bytes);
    expectThrow<vorn::ImageFileError>([&] { vorn::readImageFile(path, *image); },
                                      {path + ": ", c.problem});
    EXPECT_EQ(image->getBuffer(), buffer);
    EXPECT_EQ(pixelsOf<unsigned char>(*image), (Bytes{1, 2, 3, 4}));
  }
}

TEST(ImageFileWrite, FailuresLeaveNoFileAndKeepAnExistingTarget) {
  TempFolder folder;
  const ImagePtr flat = makeImage<unsigned char>({3, 2}, {9});
  const ImagePtr volume = makeImage<unsigned char>({2, 2, 2}, {9});
  const ImagePtr empty(new ImageObject);
  const std::string target = folder.file("kept.png");
  vorn::writeImageFile(*flat, target);
  const Bytes before = readBytes(target);
  const struct {
    ImagePtr image;
    std::string path;
    std::string problem;
  } cases[] = {
      {flat, folder.file("image.bmp"), "extension (expected .png, .nii"},
      {flat, folder.file("image.gz"), "extension"},
      {volume, target, "2-D images only"},
      {empty, folder.file("empty.nii.gz"), "no pixels"},
      {flat, folder.file("missing/image.png"), "temporary file"},
  };
  for (const auto& c : cases) {
    expectThrow<vorn::ImageFileError>([&] { vorn::writeImageFile(*c.image, c.path); },
                                      {c.path + ": ", c.problem});
  }
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"kept.png"});
  EXPECT_EQ(readBytes(target), before);
}

TEST(ImageFileOperators, ReadAndWriteThroughUpdatesKeepingTheOutputOnFailure) {
  TempFolder folder;
  const ImagePtr source = makeImage<short>({3, 2, 2}, {-4, 0, 9, 1200});
  vorn::writeImageFile(*source, folder.file("in.nii"));
  writeBytes(folder.file("bad.nii"), {'n', 'o', 'p', 'e'});
  vorn::ImageFileReader reader;
  expectUpdateFailure(reader, "parameter 'file'");
  reader.setParameterValue("file", folder.file("in.nii"));
  run(reader);
  const ImagePtr output = outputOf(reader);
  expectSameGeometry(*output, *source);
  EXPECT_EQ(pixelBytes(*output), pixelBytes(*source));
  EXPECT_EQ(output->getGenerator(), &reader);
  reader.setParameterValue("file", folder.file("bad.nii"));
  expectUpdateFailure(reader, folder.file("bad.nii") + ": ");
  EXPECT_EQ(pixelBytes(*output), pixelBytes(*source));

  reader.setParameterValue("file", folder.file("in.nii"));
  const std::string target = folder.file("out.NII.GZ");  // an extension in capitals works too
  const std::vector<std::string> before = {"bad.nii", "in.nii"};
  const mode_t umask = ::umask(027);
  {
    vorn::ImageFileWriter writer;
    connect(reader, writer);
    writer.setParameterValue("file", folder.file("missing/out.png"));
    expectUpdateFailure(writer, "missing/out.png: ");
    writer.setParameterValue("file", target);
    writer.setDeferredCommit(true);
    run(writer);
    writer.setToInvalidated();
    run(writer);  // replaces the first pending file
    EXPECT_TRUE(writer.hasPendingFile() && !fs::exists(target));
    EXPECT_EQ(folder.entries().size(), 3u);  // one temporary file
    writer.commit();
    EXPECT_FALSE(writer.hasPendingFile());
    ImageObject written;
    vorn::readImageFile(target, written);
    EXPECT_EQ(pixelBytes(written), pixelBytes(*source));
    struct stat status = {};
    EXPECT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u) << "the permissions any new file gets";
    fs::remove(target);
    writer.setToInvalidated();
    run(writer);
    EXPECT_TRUE(writer.hasPendingFile());
  }  // the destructor discards
  ::umask(umask);
  EXPECT_EQ(folder.entries(), before);
}

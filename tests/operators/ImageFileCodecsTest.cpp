// The formats of the codec table beyond PNG and NIfTI-1: a round trip per codec, pixel type and
// dimension; hand-written headers of every sample type; and a refusal per codec and mutilation.
#include <gtest/gtest.h>
#include <tiffio.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "OperatorTestSupport.hpp"
#include "TestOperators.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

using vorn::ImageObject;
using vorn::PixelType;
namespace fs = std::filesystem;

namespace {

Bytes text(const std::string& chars) { return Bytes(chars.begin(), chars.end()); }

Bytes joined(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

template <class T>
Bytes rawOf(const std::vector<T>& values, bool bigEndian = false) {
  Bytes out;
  for (const T& value : values) {
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    for (std::size_t k = 0; k < sizeof(T); ++k)
      out.push_back(bytes[bigEndian ? sizeof(T) - 1 - k : k]);
  }
  return out;
}

Bytes zlibOf(const Bytes& data) {
  uLongf size = compressBound(static_cast<uLong>(data.size()));
  Bytes out(size);
  compress(out.data(), &size, data.data(), static_cast<uLong>(data.size()));
  out.resize(size);
  return out;
}

ImagePtr readFile(const std::string& path) {
  ImagePtr image(new ImageObject);
  vorn::readImageFile(path, *image);
  return image;
}

}  // namespace

// Tests that every writable codec gives back each pixel type and dimension bit for bit, with
// its spacing and origin.
TEST(ImageFileCodecs, RoundTripsEveryTypeAndDimension) {
  TempFolder folder;
  const std::vector<ImagePtr> images = {
      makeImage<unsigned char>({7}, {0, 1, 128, 255}),
      makeImage<short>({5, 3}, {-32768, -1, 0, 300, 32767}),
      makeImage<float>({4, 3, 2}, {-0.0f, 1.5f, 3e38f, -7.25f, 1e-30f}),
      makeImage<unsigned char>({2, 3, 2, 2}, {9, 200}),
      makeImage<short>({40000}, {-5, 7}),  // past NIfTI-1's 32767: NIfTI-2
  };
  for (const std::string extension :
       {".nii", ".nii.gz", ".nrrd", ".nhdr", ".mha", ".mhd", ".tif"}) {
    for (std::size_t k = 0; k < images.size(); ++k) {
      const unsigned int axes = images[k]->getDimension();
      if (extension == ".tif" && axes != 2 && axes != 3) continue;  // pages of 2-D slices only
      const std::string path = folder.file("image" + std::to_string(k) + extension);
      SCOPED_TRACE(path);
      vorn::writeImageFile(*images[k], path);
      const ImagePtr read = readFile(path);
      ASSERT_EQ(read->getPointType(), images[k]->getPointType());
      ASSERT_TRUE(read->getBufferedRegion() == images[k]->getBufferedRegion());
      for (unsigned int axis = 0; axis < read->getDimension(); ++axis) {
        if (extension == ".tif") {  // resolution tags: 32-bit, none across pages, no origin
          EXPECT_NEAR(read->getSpacing(axis), axis < 2 ? images[k]->getSpacing(axis) : 1.0, 1e-6);
          continue;
        }
        EXPECT_EQ(read->getSpacing(axis), images[k]->getSpacing(axis));
        const bool kept = extension.find(".nii") == std::string::npos || axis < 3;
        EXPECT_EQ(read->getOrigin(axis), kept ? images[k]->getOrigin(axis) : 0.0);
      }
      EXPECT_EQ(pixelBytes(*read), pixelBytes(*images[k]));
    }
  }
  const Bytes nifti2 = readBytes(folder.file("image4.nii"));
  EXPECT_EQ(nifti2[0], 540 % 256);  // a NIfTI-2 header only where NIfTI-1 cannot hold the image
  EXPECT_EQ(readBytes(folder.file("image0.nii"))[0], 348 % 256);
  EXPECT_TRUE(fs::exists(folder.file("image0.raw.gz")) && fs::exists(folder.file("image0.zraw")));
}

namespace {

// How a TIFF test file is laid out; the pixels are given as the file holds them.
struct TiffLayout {
  unsigned bits, format, samples, photometric, compression;
  bool tiled, big;
  int pages;
};

Bytes tiffOf(const std::string& path, const TiffLayout& layout, std::uint32_t width,
             std::uint32_t height, const Bytes& pixels,
             const std::vector<std::uint16_t>& map = {}) {
  TIFF* tiff = TIFFOpen(path.c_str(), layout.big ? "w8" : "w");
  const std::size_t rowBytes = width * layout.samples * layout.bits / 8;
  for (int page = 0; page < layout.pages; ++page) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, layout.samples);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, layout.bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, layout.format);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, layout.photometric);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, layout.compression);
    if (!map.empty())
      TIFFSetField(tiff, TIFFTAG_COLORMAP, map.data(), map.data() + 256, map.data() + 512);
    if (layout.samples == 4) {
      const std::uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
      TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &alpha);
    }
    if (layout.tiled) {  // one 16 x 16 tile, cut to the image
      TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
      TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
      Bytes tile(16 * 16 * layout.samples * layout.bits / 8, 0);
      for (std::uint32_t y = 0; y < height; ++y) {
        std::memcpy(tile.data() + y * 16 * layout.samples * layout.bits / 8, &pixels[y * rowBytes],
                    rowBytes);
      }
      TIFFWriteTile(tiff, tile.data(), 0, 0, 0, 0);
    } else {
      TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 1);
      for (std::uint32_t y = 0; y < height; ++y) {
        TIFFWriteScanline(tiff, const_cast<unsigned char*>(&pixels[y * rowBytes]), y, 0);
      }
    }
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
  return readBytes(path);
}

}  // namespace

// Tests that TIFF files libtiff writes, of each sample type, layout and compression, read as
// the type rule says, colour as luma and pages as a stack.
TEST(ImageFileCodecs, ReadsTiffOfEveryKind) {
  TempFolder folder;
  const unsigned U = SAMPLEFORMAT_UINT, I = SAMPLEFORMAT_INT, F = SAMPLEFORMAT_IEEEFP;
  const unsigned gray = PHOTOMETRIC_MINISBLACK, rgb = PHOTOMETRIC_RGB;
  const unsigned none = COMPRESSION_NONE, lzw = COMPRESSION_LZW, zip = COMPRESSION_ADOBE_DEFLATE,
                 packbits = COMPRESSION_PACKBITS;
  std::vector<std::uint16_t> map(768, 0);
  map[1] = 65535;        // index 1: red
  map[512 + 2] = 65535;  // index 2: blue
  const auto UCHAR = PixelType::UCHAR, SHORT = PixelType::SHORT, FLOAT = PixelType::FLOAT;
  const struct {
    std::string name;
    TiffLayout layout;
    Bytes pixels;
    PixelType::Type type;
    std::vector<double> expected;
    std::vector<std::uint16_t> map = {};
  } cases[] = {
      {"u8", {8, U, 1, gray, none, false, false, 1}, {0, 255}, UCHAR, {0, 255}},
      {"i8-lzw",
       {8, I, 1, gray, lzw, false, false, 1},
       rawOf<std::int8_t>({-128, 7}),
       FLOAT,
       {-128, 7}},
      {"u16-zip",
       {16, U, 1, gray, zip, false, false, 1},
       rawOf<std::uint16_t>({65535, 3}),
       FLOAT,
       {65535, 3}},
      {"i16-tiled",
       {16, I, 1, gray, packbits, true, false, 1},
       rawOf<short>({-300, 300}),
       SHORT,
       {-300, 300}},
      {"i32-big",
       {32, I, 1, gray, zip, false, true, 1},
       rawOf<std::int32_t>({-70000, 70000}),
       FLOAT,
       {-70000, 70000}},
      {"u32",
       {32, U, 1, gray, lzw, true, true, 1},
       rawOf<std::uint32_t>({4000000000u, 1}),
       FLOAT,
       {4e9, 1}},
      {"f32",
       {32, F, 1, gray, none, false, false, 1},
       rawOf<float>({-1.5f, 2.25f}),
       FLOAT,
       {-1.5, 2.25}},
      {"f64-pages",
       {64, F, 1, gray, zip, false, false, 3},
       rawOf<double>({0.5, 1e300}),
       FLOAT,
       {0.5, INFINITY, 0.5, INFINITY, 0.5, INFINITY}},
      // 0.299 R + 0.587 G + 0.114 B by hand: 76.245 and 140.75.
      {"rgb8", {8, U, 3, rgb, lzw, false, false, 1}, {255, 0, 0, 100, 150, 200}, UCHAR, {76, 141}},
      {"rgba8-tiled",
       {8, U, 4, rgb, zip, true, false, 1},
       {255, 0, 0, 9, 100, 150, 200, 9},
       UCHAR,
       {76, 141}},
      {"rgb16",
       {16, U, 3, rgb, none, false, false, 1},
       rawOf<std::uint16_t>({65535, 0, 0, 1000, 2000, 3000}),
       FLOAT,
       {19595, 1815}},
      {"palette",
       {8, U, 1, PHOTOMETRIC_PALETTE, none, false, false, 1},
       {1, 2},
       UCHAR,
       {76, 29},
       map},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = folder.file(c.name + ".tif");
    tiffOf(path, c.layout, 2, 1, c.pixels, c.map);
    const ImagePtr image = readFile(path);
    EXPECT_EQ(image->getPointType(), c.type);
    EXPECT_EQ(image->getDimension(), c.layout.pages > 1 ? 3u : 2u);
    EXPECT_EQ(valuesOf(*image), c.expected);
  }
}

// Tests that hand-written NRRD and MetaImage headers of each sample type, byte order and
// encoding read as the type rule says, with their geometry.
TEST(ImageFileCodecs, ReadsEverySampleTypeOfTextHeaders) {
  TempFolder folder;
  const auto nrrd = [](const std::string& type, const std::string& extra) {
    return text("NRRD0004\ntype: " + type + "\ndimension: 2\nsizes: 2 1\n" + extra + "\n\n");
  };
  const auto meta = [](const std::string& type, const std::string& extra) {
    return text("ObjectType = Image\nNDims = 2\nDimSize = 2 1\nElementType = " + type + "\n" +
                extra + "ElementDataFile = LOCAL\n");
  };
  writeBytes(folder.file("pixels.raw"), rawOf<std::uint16_t>({65535, 2}, true));
  const auto UCHAR = PixelType::UCHAR, SHORT = PixelType::SHORT, FLOAT = PixelType::FLOAT;
  const struct {
    std::string name;
    Bytes file;
    PixelType::Type type;
    std::vector<double> expected;
  } cases[] = {
      {"u8.nrrd", joined(nrrd("uchar", "encoding: raw"), {3, 250}), UCHAR, {3, 250}},
      {"i8.nrrd",
       joined(nrrd("signed char", "encoding: raw"), rawOf<std::int8_t>({-128, 5})),
       FLOAT,
       {-128, 5}},
      {"i16be.nrrd",
       joined(nrrd("short", "encoding: raw\nendian: big"), rawOf<short>({-2, 300}, true)),
       SHORT,
       {-2, 300}},
      {"u16.nrrd",
       joined(nrrd("uint16", "encoding: raw"), rawOf<std::uint16_t>({65535, 0})),
       FLOAT,
       {65535, 0}},
      {"i32.nrrd",
       joined(nrrd("int", "encoding: gzip"), zlibOf(rawOf<std::int32_t>({-70000, 1}))),
       FLOAT,
       {-70000, 1}},
      {"u64.nrrd",
       joined(nrrd("uint64", "encoding: raw"), rawOf<std::uint64_t>({1u << 20, 3})),
       FLOAT,
       {1u << 20, 3}},
      {"f64.nrrd",
       joined(nrrd("double", "encoding: raw\nspacings: 2 0.5"), rawOf<double>({0.5, 1e300})),
       FLOAT,
       {0.5, INFINITY}},
      {"detached.nhdr",
       nrrd("ushort", "encoding: raw\nendian: big\ndata file: pixels.raw"),
       FLOAT,
       {65535, 2}},
      {"f32.mha", joined(meta("MET_FLOAT", ""), rawOf<float>({-1.5f, 2})), FLOAT, {-1.5, 2}},
      {"u32.mha",
       joined(meta("MET_UINT", "BinaryDataByteOrderMSB = True\n"),
              rawOf<std::uint32_t>({7, 4000000000u}, true)),
       FLOAT,
       {7, 4e9}},
      {"i16z.mha",
       joined(meta("MET_SHORT", "CompressedData = True\n"), zlibOf(rawOf<short>({-9, 9}))),
       SHORT,
       {-9, 9}},
      {"detached.mhd",
       text("NDims = 2\nDimSize = 2 1\nElementType = MET_USHORT\nElementByteOrderMSB = "
            "True\nElementDataFile = pixels.raw\n"),
       FLOAT,
       {65535, 2}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    writeBytes(folder.file(c.name), c.file);
    const ImagePtr image = readFile(folder.file(c.name));
    EXPECT_EQ(image->getPointType(), c.type);
    EXPECT_EQ(valuesOf(*image), c.expected);
  }
  writeBytes(folder.file("geometry.nrrd"),
             joined(nrrd("uchar",
                         "encoding: raw\nspace dimension: 2\nspace directions: (0,3) (4,0)\nspace "
                         "origin: (-1,2.5)"),
                    {1, 2}));
  const ImagePtr placed = readFile(folder.file("geometry.nrrd"));
  EXPECT_EQ(placed->getSpacing(0), 3.0);  // the length of each axis's direction
  EXPECT_EQ(placed->getSpacing(1), 4.0);
  EXPECT_EQ(placed->getOrigin(1), 2.5);
}

// Tests that each codec refuses cut, lying, mistyped and incomplete files with a message naming
// the fault, leaving the image as it was.
TEST(ImageFileCodecs, RefusesMutilatedFilesNamingTheFault) {
  TempFolder folder;
  const ImagePtr volume = makeImage<float>({6, 5, 4}, {1.0f, -2.0f, 3.5f});
  for (const std::string name :
       {"good.nrrd", "good.mha", "good.nii", "detached.mhd", "detached.nhdr"}) {
    vorn::writeImageFile(*volume, folder.file(name));
  }
  const auto cut = [&](const std::string& name, std::size_t keep) {
    Bytes bytes = readBytes(folder.file(name));
    bytes.resize(keep);
    return bytes;
  };
  const auto replaced = [&](const std::string& name, const std::string& from,
                            const std::string& to) {
    Bytes bytes = readBytes(folder.file(name));
    const auto at = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
    bytes.erase(at, at + static_cast<long>(from.size()));
    bytes.insert(at, to.begin(), to.end());
    return bytes;
  };
  const std::size_t nrrdSize = readBytes(folder.file("good.nrrd")).size();
  const std::size_t metaSize = readBytes(folder.file("good.mha")).size();
  const TiffLayout grayPages = {
      8, SAMPLEFORMAT_UINT, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_NONE, false, false, 2};
  const TiffLayout oneBit = {
      1, SAMPLEFORMAT_UINT, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_NONE, false, false, 1};
  // Width and height of the first page (its first two IFD entries, SHORT values) made 60000.
  Bytes lyingTiff = tiffOf(folder.file("lying.tif"), grayPages, 4, 4, Bytes(16, 7));
  const std::size_t ifd = std::size_t{lyingTiff[4]} | std::size_t{lyingTiff[5]}
                                                          << 8;  // a small file
  for (const std::size_t entry : {ifd + 2, ifd + 14}) {
    lyingTiff[entry + 8] = 60000 & 0xff;
    lyingTiff[entry + 9] = 60000 >> 8;
  }
  Bytes mixedTiff = tiffOf(folder.file("mixed.tif"), grayPages, 4, 4, Bytes(16, 7));
  mixedTiff[ifd + 14 + 8] = 3;  // the first page's height: 4 rows become 3
  const Bytes lyingMeta = replaced("good.mha", "DimSize = 6 5 4", "DimSize = 6 5 4000000");
  const struct {
    std::string name;
    Bytes bytes;
    std::string problem;
  } cases[] = {
      {"cut.nrrd", cut("good.nrrd", nrrdSize - 12),
       "compressed pixel data ends before the 480 bytes"},
      {"lying.nrrd", replaced("good.nrrd", "sizes: 6 5 4", "sizes: 60000 50000 40000"),
       "NRRD sizes claims 60000 x 50000 x 40000 float32 samples, more than the data file of"},
      {"type.nrrd", replaced("good.nrrd", "type: float", "type: block"),
       "NRRD type 'block' is not supported"},
      {"encoding.nrrd", replaced("good.nrrd", "encoding: gzip", "encoding: bzip2"),
       "NRRD encoding 'bzip2'"},
      {"zero.nrrd", replaced("good.nrrd", "sizes: 6 5 4", "sizes: 6 0 4"),
       "NRRD sizes: '0' is not a positive size"},
      {"escape.nhdr",
       replaced("detached.nhdr", "data file: detached.raw.gz", "data file: ../etc/passwd"),
       "without '..'"},
      {"missing.nhdr",
       replaced("detached.nhdr", "data file: detached.raw.gz", "data file: gone.raw"),
       "its data file " + folder.file("gone.raw") + " is missing"},
      {"cut.mha", cut("good.mha", metaSize - 8), "ends before the 480 bytes"},
      {"lying.mha", lyingMeta,
       "MetaImage DimSize claims 6 x 5 x 4000000 float32 samples, more than the data file of " +
           std::to_string(lyingMeta.size()) + " bytes holds"},
      {"type.mha", replaced("good.mha", "MET_FLOAT", "MET_STRING"),
       "ElementType MET_STRING is not supported"},
      {"axes.mha", replaced("good.mha", "NDims = 3", "NDims = 99"), "NDims '99': expected 1 to 16"},
      {"missing.mhd",
       replaced("detached.mhd", "ElementDataFile = detached.zraw", "ElementDataFile = gone.zraw"),
       "is missing"},
      {"absolute.mhd",
       replaced("detached.mhd", "ElementDataFile = detached.zraw", "ElementDataFile = /etc/passwd"),
       "without '..'"},
      {"headerless.mha", text("ObjectType = Image\n" + std::string(70000, ' ')),
       "without ElementDataFile in its first 65536 bytes"},
      {"cut.nii", cut("good.nii", 400), "more than the 400 bytes of the file"},
      {"cut.tif", cut("good.tif", 200), "TIFF"},
      {"onebit.tif", tiffOf(folder.file("onebit.tif"), oneBit, 8, 1, {0x0f}),
       "TIFF samples of 1 bits"},
      {"mixed.tif", mixedTiff, "TIFF page 2 differs from the first"},
      {"lying.tif", lyingTiff,
       "TIFF claims 2 pages of 60000 x 60000 pixels of 1 samples of 8 bits, more than the file of"},
  };
  ImagePtr image = makeImage<unsigned char>({2}, {1, 2});
  for (const auto& c : cases) {
    const std::string path = folder.file(c.name);
    SCOPED_TRACE(path);
    writeBytes(path, c.bytes);
    expectThrow<vorn::ImageFileError>([&] { vorn::readImageFile(path, *image); },
                                      {path + ": ", c.problem});
    EXPECT_EQ(pixelsOf<unsigned char>(*image), (Bytes{1, 2}));
  }
}

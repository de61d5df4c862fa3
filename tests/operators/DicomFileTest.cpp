// DICOM files and series written by GDCM in the test itself: the pixel type and rescale rule,
// sorting and spacing of series, series selection, RLE, and the refusals.
#include <gdcmImageChangeTransferSyntax.h>
#include <gdcmImageReader.h>
#include <gdcmWriter.h>
#include <gtest/gtest.h>

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
#include "vorn/operators/ImageFileReader.hpp"

using vorn::ImageObject;
using vorn::PixelType;

namespace {

// One DICOM file; the pixels are given as stored, little-endian.
struct DicomSample {
  std::vector<std::uint16_t> pixels;
  unsigned bits = 16, stored = 16, isSigned = 0, columns = 2, rows = 2, frames = 1;
  std::string slope, intercept;  // empty: absent
  std::string position = "10\\20\\30", series = "1.2.826.0.1.7.1";
  std::string orientation = "1\\0\\0\\0\\1\\0", photometric = "MONOCHROME2";
};

DicomSample gray(std::vector<std::uint16_t> pixels, unsigned bits = 16, unsigned stored = 16,
                 unsigned isSigned = 0, const std::string& slope = "",
                 const std::string& intercept = "") {
  DicomSample sample;
  sample.pixels = std::move(pixels);
  sample.bits = bits;
  sample.stored = stored;
  sample.isSigned = isSigned;
  sample.slope = slope;
  sample.intercept = intercept;
  return sample;
}

void put(gdcm::DataSet& set, std::uint16_t group, std::uint16_t element, gdcm::VR vr,
         std::string value) {
  if (value.size() % 2 == 1) value += vr == gdcm::VR::UI ? '\0' : ' ';
  gdcm::DataElement data(gdcm::Tag(group, element));
  data.SetVR(vr);
  data.SetByteValue(value.data(), static_cast<std::uint32_t>(value.size()));
  set.Insert(data);
}

void putShort(gdcm::DataSet& set, std::uint16_t element, unsigned value) {
  const auto number = static_cast<std::uint16_t>(value);
  put(set, 0x0028, element, gdcm::VR::US, std::string(reinterpret_cast<const char*>(&number), 2));
}

std::string storedBytes(const DicomSample& sample) {
  std::string bytes;
  for (std::uint16_t value : sample.pixels) {
    bytes += static_cast<char>(value & 0xff);
    if (sample.bits == 16) bytes += static_cast<char>(value >> 8);
  }
  return bytes;
}

void writeDicom(const std::string& path, const DicomSample& sample) {
  static int instance = 0;
  gdcm::Writer writer;
  writer.GetFile().GetHeader().SetDataSetTransferSyntax(
      gdcm::TransferSyntax::ExplicitVRLittleEndian);
  gdcm::DataSet& set = writer.GetFile().GetDataSet();
  put(set, 0x0008, 0x0016, gdcm::VR::UI, "1.2.840.10008.5.1.4.1.1.4");
  put(set, 0x0008, 0x0018, gdcm::VR::UI, "1.2.826.0.1.7.2." + std::to_string(++instance));
  put(set, 0x0020, 0x000e, gdcm::VR::UI, sample.series);
  put(set, 0x0020, 0x0032, gdcm::VR::DS, sample.position);
  put(set, 0x0020, 0x0037, gdcm::VR::DS, sample.orientation);
  put(set, 0x0028, 0x0030, gdcm::VR::DS, "0.5\\0.25");
  if (sample.frames > 1) put(set, 0x0028, 0x0008, gdcm::VR::IS, std::to_string(sample.frames));
  if (sample.frames > 1) put(set, 0x0018, 0x0088, gdcm::VR::DS, "2.5");
  if (!sample.slope.empty()) put(set, 0x0028, 0x1053, gdcm::VR::DS, sample.slope);
  if (!sample.intercept.empty()) put(set, 0x0028, 0x1052, gdcm::VR::DS, sample.intercept);
  const bool rgb = sample.photometric == "RGB";
  putShort(set, 0x0002, rgb ? 3 : 1);
  if (rgb) putShort(set, 0x0006, 0);
  put(set, 0x0028, 0x0004, gdcm::VR::CS, sample.photometric);
  putShort(set, 0x0010, sample.rows);
  putShort(set, 0x0011, sample.columns);
  putShort(set, 0x0100, sample.bits);
  putShort(set, 0x0101, sample.stored);
  putShort(set, 0x0102, sample.stored - 1);
  putShort(set, 0x0103, sample.isSigned);
  put(set, 0x7fe0, 0x0010, sample.bits == 8 ? gdcm::VR::OB : gdcm::VR::OW, storedBytes(sample));
  writer.SetFileName(path.c_str());
  ASSERT_TRUE(writer.Write()) << path;
}

// Re-encodes the pixels of `path` with GDCM's RLE codec, keeping every other attribute.
void compressRle(const std::string& path) {
  gdcm::ImageReader reader;
  reader.SetFileName(path.c_str());
  ASSERT_TRUE(reader.Read());
  gdcm::ImageChangeTransferSyntax change;
  change.SetTransferSyntax(gdcm::TransferSyntax::RLELossless);
  change.SetInput(reader.GetImage());
  ASSERT_TRUE(change.Change());
  gdcm::File& file = reader.GetFile();
  file.GetDataSet().Replace(change.GetOutput().GetDataElement());
  file.GetHeader().Clear();
  file.GetHeader().SetDataSetTransferSyntax(gdcm::TransferSyntax::RLELossless);
  gdcm::Writer writer;
  writer.SetFileName(path.c_str());
  writer.SetFile(file);
  ASSERT_TRUE(writer.Write());
}

ImagePtr readDicom(const std::string& path, const std::string& series = "") {
  ImagePtr image(new ImageObject);
  vorn::ImageReadOptions options;
  options.series = series;
  vorn::readImageFile(path, *image, options);
  return image;
}

}  // namespace

// Tests that single files keep integer types while the rescale allows, mask and sign-extend
// their stored bits, reduce colour to luma, stack frames, decode RLE and swap Pixel Spacing's
// row-first order.
TEST(DicomFile, ReadsSingleFilesByTheTypeRule) {
  TempFolder folder;
  const auto SHORT = PixelType::SHORT, FLOAT = PixelType::FLOAT, UCHAR = PixelType::UCHAR;
  DicomSample ct = gray({0, 4095, 0x2000 | 1024, 5}, 16, 12);  // bit 13: an overlay, not the value
  ct.slope = "1";
  ct.intercept = "-1024";
  DicomSample frames = gray({1, 2, 3, 4, 5, 6, 7, 8}, 8, 8);
  frames.frames = 2;
  const struct {
    std::string name;
    DicomSample sample;
    bool rle;
    PixelType::Type type;
    std::vector<double> expected;
  } cases[] = {
      {"ct", ct, false, SHORT, {-1024, 3071, 0, -1019}},
      {"ct-rle", ct, true, SHORT, {-1024, 3071, 0, -1019}},
      {"i16",
       gray({0x8000, 0x7fff, 0xfed4, 300}, 16, 16, 1),
       false,
       SHORT,
       {-32768, 32767, -300, 300}},
      {"i12", gray({0x0fff, 0x0800, 0x07ff, 0}, 16, 12, 1), false, SHORT, {-1, -2048, 2047, 0}},
      {"u16", gray({65535, 0, 1, 2}), false, FLOAT, {65535, 0, 1, 2}},
      {"u16-slope",
       gray({2, 0, 1, 65535}, 16, 16, 0, "0.5", "1.25"),
       false,
       FLOAT,
       {2.25, 1.25, 1.75, 32768.75}},
      {"u8", gray({0, 255, 7, 9}, 8, 8), false, UCHAR, {0, 255, 7, 9}},
      {"u8-frames", frames, true, UCHAR, {1, 2, 3, 4, 5, 6, 7, 8}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = folder.file(c.name + ".dcm");
    writeDicom(path, c.sample);
    if (c.rle) compressRle(path);
    const ImagePtr image = readDicom(path);
    EXPECT_EQ(image->getPointType(), c.type);
    EXPECT_EQ(valuesOf(*image), c.expected);
    EXPECT_EQ(image->getDimension(), c.sample.frames > 1 ? 3u : 2u);
    EXPECT_EQ(image->getSpacing(0), 0.25);
    EXPECT_EQ(image->getSpacing(1), 0.5);
    if (c.sample.frames > 1) {
      EXPECT_EQ(image->getSpacing(2), 2.5);
    }
    EXPECT_EQ(image->getOrigin(1), 20.0);
  }
}

// Tests that RGB reads as its rounded luma: 0.299 R + 0.587 G + 0.114 B by hand.
TEST(DicomFile, ReadsColourAsLuma) {
  TempFolder folder;
  DicomSample rgb = gray({255, 0, 0, 100, 150, 200}, 8, 8);
  rgb.photometric = "RGB";
  rgb.columns = 2;
  rgb.rows = 1;
  writeDicom(folder.file("rgb.dcm"), rgb);
  const ImagePtr image = readDicom(folder.file("rgb.dcm"));
  EXPECT_EQ(image->getPointType(), PixelType::UCHAR);
  EXPECT_EQ(valuesOf(*image), (std::vector<double>{76, 141}));
}

namespace {

// A series folder: slice k (pixels all k) at k * gap along the normal of a plane tilted 30
// degrees about x, written to disk in the order `onDisk`.
void writeSeries(const TempFolder& folder, const std::vector<double>& gaps,
                 const std::vector<int>& onDisk, const std::string& series = "1.2.826.0.1.7.1",
                 const std::string& prefix = "slice") {
  const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6);
  double along = 0.0;
  std::vector<double> positions;
  for (double gap : gaps) positions.push_back(along += gap);
  for (std::size_t i = 0; i < onDisk.size(); ++i) {
    const int k = onDisk[i];
    DicomSample sample = gray(std::vector<std::uint16_t>(4, static_cast<std::uint16_t>(k)));
    sample.series = series;
    sample.orientation = "1\\0\\0\\0\\" + std::to_string(c) + "\\" + std::to_string(s);
    const double d = positions[static_cast<std::size_t>(k)];
    sample.position = "7\\" + std::to_string(-s * d) + "\\" + std::to_string(c * d);
    writeDicom(folder.file(prefix + std::to_string(i)), sample);
  }
}

}  // namespace

// Tests that a shuffled, tilted series reads sorted along its normal with the measured spacing,
// and that one series of a folder holding two is read by its UID.
TEST(DicomFile, ReadsSeriesSortedAlongTheirNormal) {
  TempFolder folder;
  writeSeries(folder, {0, 3, 3, 3}, {2, 0, 3, 1});
  const ImagePtr image = readDicom(folder.path().string());
  ASSERT_EQ(image->getDimension(), 3u);
  EXPECT_EQ(image->getBufferedRegion().m_size[2], 4u);
  const std::vector<double> values = valuesOf(*image);
  for (std::size_t k = 0; k < 4; ++k) EXPECT_EQ(values[4 * k], static_cast<double>(k));
  EXPECT_NEAR(image->getSpacing(2), 3.0, 1e-5);
  EXPECT_EQ(image->getOrigin(0), 7.0);

  writeSeries(folder, {0, 2, 2}, {0, 1, 2}, "1.2.826.0.1.7.9", "other");
  vorn::ImageFileReader reader;  // the operator passes its series parameter on
  reader.setParameterValue("file", folder.path().string());
  reader.setParameterValue("series", "1.2.826.0.1.7.9");
  run(reader);
  const ImagePtr picked = outputOf(reader);
  EXPECT_EQ(picked->getBufferedRegion().m_size[2], 3u);
  EXPECT_NEAR(picked->getSpacing(2), 2.0, 1e-5);
}

// Tests that series that cannot form one evenly spaced volume, and broken files, are refused
// with messages naming what is wrong.
TEST(DicomFile, RefusesWhatCannotFormAVolume) {
  const struct {
    std::string name;
    void (*make)(const TempFolder&);
    std::string series;
    std::vector<std::string> message;
  } cases[] = {
      {"uneven",
       [](const TempFolder& f) {
         writeSeries(f, {0, 3, 3, 4}, {0, 1, 2, 3});
       },
       "",
       {"unevenly spaced", "slice0 and", "slice1 are 2.99", "mean spacing is 3.33",
        "tolerance 1%"}},
      {"same place",
       [](const TempFolder& f) {
         writeSeries(f, {0, 0}, {0, 1});
       },
       "",
       {"unevenly spaced"}},
      {"two series",
       [](const TempFolder& f) {
         writeSeries(f, {0, 2}, {0, 1}, "1.2.826.0.1.7.5", "a");
         writeSeries(f, {0, 2}, {0, 1}, "1.2.826.0.1.7.6", "b");
       },
       "",
       {"2 DICOM series", "series=UID", "1.2.826.0.1.7.5 (2 files)", "1.2.826.0.1.7.6"}},
      {"unknown series",
       [](const TempFolder& f) {
         writeSeries(f, {0, 2}, {0, 1});
       },
       "9.9",
       {"no DICOM series 9.9", "1.2.826.0.1.7.1"}},
      {"mixed sizes",
       [](const TempFolder& f) {
         writeSeries(f, {0, 2}, {0, 1});
         DicomSample wide = gray({1, 2, 3, 4, 5, 6});
         wide.columns = 3;
         writeDicom(f.file("wide"), wide);
       },
       "",
       {"mixed slices", "wide", "3 x 2 pixels", "2 x 2 pixels"}},
      {"no dicom",
       [](const TempFolder& f) {
         writeBytes(f.file("notes.txt"), {'h', 'i'});
       },
       "",
       {"holds no DICOM files"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder folder;
    c.make(folder);
    try {
      readDicom(folder.path().string(), c.series);
      ADD_FAILURE() << "read";
    } catch (const vorn::ImageFileError& error) {
      for (const std::string& part : c.message)
        EXPECT_NE(std::string(error.what()).find(part), std::string::npos) << error.what();
    }
  }
}

// Tests that broken single files and writing DICOM are refused by name.
TEST(DicomFile, RefusesBrokenFiles) {
  TempFolder folder;
  const std::string good = folder.file("good.dcm");
  writeDicom(good, gray({1, 2, 3, 4}));
  Bytes truncated = readBytes(good);
  truncated.resize(truncated.size() - 3);
  writeBytes(folder.file("truncated.dcm"), truncated);
  DicomSample huge = gray({1, 2, 3, 4});
  huge.rows = huge.columns = 60000;
  writeDicom(folder.file("huge.dcm"), huge);
  DicomSample flat = gray({1, 2, 3, 4});
  flat.slope = "0";
  writeDicom(folder.file("flat.dcm"), flat);
  const auto refuses = [&](const std::string& name, std::initializer_list<std::string> parts) {
    SCOPED_TRACE(name);
    expectThrow<vorn::ImageFileError>([&] { readDicom(folder.file(name)); }, parts);
  };
  refuses("truncated.dcm", {"truncated.dcm"});
  refuses("huge.dcm", {"60000 x 60000 pixels", "claims 7200000000 bytes"});
  refuses("flat.dcm", {"Rescale Slope 0"});
  expectThrow<vorn::ImageFileError>(
      [&] { vorn::writeImageFile(*readDicom(good), folder.file("out.dcm")); },
      {"DICOM files are read, not written"});
}

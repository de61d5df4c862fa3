#include <gtest/gtest.h>

#include <filesystem>
#include <ios>
#include <string>
#include <vector>

#include "CoutCapture.hpp"
#include "ImageFileTestSupport.hpp"
#include "TestOperators.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"

namespace fs = std::filesystem;
using vorn::ImageObject;
using vorn::PixelType;

namespace {

ImageObject& outputOf(vorn::ProcessObject& op) {
  return *boost::dynamic_pointer_cast<ImageObject>(op.getOutputPort(0)->getData());
}

// The text of the failure update() throws, or "" when it succeeds.
std::string updateFailure(vorn::ProcessObject& op) {
  try {
    op.update();
  } catch (const std::ios_base::failure& failure) {
    return failure.what();
  }
  return "";
}

}  // namespace

TEST(ImageFileReader, ReadsTheFileAndKeepsItsOutputOnFailure) {
  CoutCapture silence;
  TempFolder folder;
  ImageObject source;
  fillImage<short>(source, PixelType::SHORT, {3, 2, 2}, {-4, 0, 9, 1200});
  vorn::writeImageFile(source, folder.file("in.nii"));
  vorn::ImageFileReader reader;
  EXPECT_NE(updateFailure(reader).find("parameter 'file'"), std::string::npos);
  reader.setParameterValue("file", folder.file("in.nii"));
  ASSERT_EQ(updateFailure(reader), "");
  ImageObject& output = outputOf(reader);
  EXPECT_EQ(output.getPointType(), PixelType::SHORT);
  EXPECT_EQ(output.getSpacing(1), 1.5);
  EXPECT_EQ(pixelBytes(output), pixelBytes(source));
  EXPECT_EQ(output.getGenerator(), &reader);

  writeBytes(folder.file("bad.nii"), {'n', 'o', 'p', 'e'});
  reader.setParameterValue("file", folder.file("bad.nii"));
  EXPECT_NE(updateFailure(reader).find(folder.file("bad.nii") + ": "), std::string::npos);
  EXPECT_EQ(pixelBytes(output), pixelBytes(source));
}

TEST(ImageFileWriter, WritesItsInputAndDefersTheCommitWhenAsked) {
  CoutCapture silence;
  TempFolder folder;
  ImageObject source;
  fillImage<unsigned char>(source, PixelType::UCHAR, {4, 4}, {1, 50, 200});
  vorn::writeImageFile(source, folder.file("in.png"));
  vorn::ImageFileReader reader;
  reader.setParameterValue("file", folder.file("in.png"));
  const std::string target = folder.file("out.nii.gz");
  {
    vorn::ImageFileWriter writer;
    connect(reader, writer);
    writer.setParameterValue("file", folder.file("missing/out.png"));
    EXPECT_NE(updateFailure(writer).find("missing/out.png: "), std::string::npos);

    writer.setParameterValue("file", target);
    writer.setDeferredCommit(true);
    ASSERT_EQ(updateFailure(writer), "");
    writer.setToInvalidated();
    ASSERT_EQ(updateFailure(writer), "");  // replaces the first pending file
    EXPECT_TRUE(writer.hasPendingFile());
    EXPECT_EQ(folder.entries().size(), 2u);  // in.png and one temporary file
    EXPECT_FALSE(fs::exists(target));
    writer.commit();
    EXPECT_FALSE(writer.hasPendingFile());
    ImageObject written;
    vorn::readImageFile(target, written);
    EXPECT_EQ(pixelBytes(written), pixelBytes(source));

    fs::remove(target);
    writer.setToInvalidated();
    ASSERT_EQ(updateFailure(writer), "");
    writer.discard();
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"in.png"});
    writer.setToInvalidated();
    ASSERT_EQ(updateFailure(writer), "");
  }  // the destructor discards
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"in.png"});
}

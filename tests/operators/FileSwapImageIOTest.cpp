#include "vorn/operators/FileSwapImageIO.hpp"

#include <gtest/gtest.h>

#include <boost/shared_ptr.hpp>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "ImageFileTestSupport.hpp"
#include "vorn/DefaultImageIO.hpp"
#include "vorn/ImageObject.hpp"

namespace fs = std::filesystem;
using vorn::FileSwapImageIO;
using vorn::ImageObject;
using vorn::PixelType;

namespace {

struct SwappedImage {
  SwappedImage(PixelType::Type type, const std::string& folder) : image(new ImageObject) {
    if (type == PixelType::SHORT) {
      fillImage<short>(*image, type, {4, 3, 2}, {-32768, 0, 7, 32767, -5});
    } else {
      // Bits a value-based copy would not keep: a NaN payload and a negative zero.
      fillImage<float>(*image, type, {4, 3, 2},
                       {std::numeric_limits<float>::signaling_NaN(), -0.0f, 1e-42f, 3.5f});
    }
    hook = new FileSwapImageIO(image.get(), folder);
    image->setImageIO(boost::shared_ptr<vorn::IImageIO>(hook));
  }
  boost::shared_ptr<ImageObject> image;
  FileSwapImageIO* hook;  // owned by the image
};

}  // namespace

TEST(FileSwapImageIO, DumpsToAFileAndRestoresBitForBit) {
  TempFolder folder;
  for (PixelType::Type type : {PixelType::SHORT, PixelType::FLOAT}) {
    SwappedImage swapped(type, folder.path().string());
    ImageObject& image = *swapped.image;
    const std::vector<char> pixels = pixelBytes(image);
    swapped.image->dump();
    ASSERT_TRUE(swapped.hook->isDumped());
    const std::string file = swapped.hook->getSwapFile();
    EXPECT_EQ(fs::path(file).parent_path(), folder.path());
    EXPECT_EQ(fs::file_size(file), pixels.size());
    EXPECT_EQ(pixelBytes(image), pixels);  // restores
    EXPECT_FALSE(swapped.hook->isDumped());
    EXPECT_TRUE(swapped.hook->getSwapFile().empty());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(image.getPointType(), type);
    EXPECT_EQ(image.getBufferedRegion().m_size[2], 2u);
    EXPECT_EQ(image.getSpacing(2), 2.5);
    EXPECT_EQ(image.getOrigin(1), -1.25);
  }
}

TEST(FileSwapImageIO, DestroyingTheImageOrTheHookWhileDumpedRemovesTheFile) {
  TempFolder folder;
  SwappedImage first(PixelType::FLOAT, folder.path().string());
  first.image->dump();
  first.image.reset();
  SwappedImage second(PixelType::SHORT, folder.path().string());
  second.image->dump();
  second.image->setImageIO(
      boost::shared_ptr<vorn::IImageIO>(new vorn::DefaultImageIO(second.image.get())));
  EXPECT_TRUE(folder.entries().empty());
  EXPECT_EQ(second.image->getDimension(), 0u);  // the pixels went with the hook
}

TEST(FileSwapImageIO, DumpThatCannotWriteLeavesTheImageWhole) {
  TempFolder folder;
  const std::string missing = folder.file("missing");
  SwappedImage swapped(PixelType::SHORT, missing);
  const void* buffer = swapped.image->getBuffer();
  const std::vector<char> pixels = pixelBytes(*swapped.image);
  try {
    swapped.image->dump();
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(missing + "/vorn-swap-"), std::string::npos);
  }
  EXPECT_FALSE(swapped.hook->isDumped());
  EXPECT_EQ(swapped.image->getBuffer(), buffer);
  EXPECT_EQ(pixelBytes(*swapped.image), pixels);
}

TEST(FileSwapImageIO, RestoreFromAMissingOrShortFileThrowsOnceAndLeavesAnEmptyImage) {
  TempFolder folder;
  for (bool remove : {true, false}) {
    SwappedImage swapped(PixelType::FLOAT, folder.path().string());
    swapped.image->dump();
    const std::string file = swapped.hook->getSwapFile();
    if (remove) {
      fs::remove(file);
    } else {
      fs::resize_file(file, 10);
    }
    try {
      swapped.image->getBuffer();
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(file), std::string::npos);
    }
    EXPECT_FALSE(swapped.hook->isDumped());
    EXPECT_EQ(swapped.image->getDimension(), 0u);
    EXPECT_FALSE(fs::exists(file));
  }
}

TEST(FileSwapImageIO, UsesTheTemporaryFolderByDefaultAndLeavesEmptyImagesAlone) {
  SwappedImage swapped(PixelType::SHORT, "");
  swapped.image->dump();
  EXPECT_TRUE(fs::equivalent(fs::path(swapped.hook->getSwapFile()).parent_path(),
                             fs::temp_directory_path()));
  swapped.image->getBuffer();
  ImageObject empty;
  FileSwapImageIO hook(&empty);
  hook.dump();
  EXPECT_FALSE(hook.isDumped());
}

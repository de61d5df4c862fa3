#include "vorn/operators/FileSwapImageIO.hpp"

#include <gtest/gtest.h>

#include <boost/shared_ptr.hpp>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "OperatorTestSupport.hpp"
#include "vorn/DefaultImageIO.hpp"
#include "vorn/ImageObject.hpp"

namespace fs = std::filesystem;
using vorn::FileSwapImageIO;
using vorn::PixelType;

namespace {

struct SwappedImage {
  SwappedImage(PixelType::Type type, const std::string& folder)
      : image(type == PixelType::SHORT
                  ? makeImage<short>({4, 3, 2}, {-32768, 0, 7, 32767, -5})
                  // Bits a value-based copy would not keep: a NaN payload and a negative zero.
                  : makeImage<float>({4, 3, 2}, {std::numeric_limits<float>::signaling_NaN(), -0.0f,
                                                 1e-42f, 3.5f})),
        hook(new FileSwapImageIO(image.get(), folder)) {
    image->setImageIO(boost::shared_ptr<vorn::IImageIO>(hook));
  }
  ImagePtr image;
  FileSwapImageIO* hook;  // owned by the image
};

}  // namespace

// The second image swaps to the system temporary folder, which an empty folder name means.
TEST(FileSwapImageIO, DumpsToAFileAndRestoresBitForBit) {
  TempFolder folder;
  for (const auto& [type, where] : {std::make_pair(PixelType::SHORT, folder.path()),
                                    std::make_pair(PixelType::FLOAT, fs::path())}) {
    SwappedImage swapped(type, where.string());
    const std::vector<char> pixels = pixelBytes(*swapped.image);
    swapped.image->dump();
    ASSERT_TRUE(swapped.hook->isDumped());
    const std::string file = swapped.hook->getSwapFile();
    swapped.hook->dump();  // already dumped: nothing more
    EXPECT_EQ(swapped.hook->getSwapFile(), file);
    EXPECT_TRUE(fs::equivalent(fs::path(file).parent_path(),
                               where.empty() ? fs::temp_directory_path() : where));
    EXPECT_EQ(fs::file_size(file), pixels.size());
    EXPECT_EQ(pixelBytes(*swapped.image), pixels);  // restores
    EXPECT_FALSE(swapped.hook->isDumped());
    EXPECT_TRUE(swapped.hook->getSwapFile().empty());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(swapped.image->getPointType(), type);
    expectSameGeometry(*swapped.image, *makeImage<short>({4, 3, 2}, {0}));
  }
  vorn::ImageObject empty;
  FileSwapImageIO hook(&empty);
  hook.dump();
  EXPECT_FALSE(hook.isDumped()) << "an image without axes has nothing to swap";
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
  SwappedImage swapped(PixelType::SHORT, folder.file("missing"));
  const void* buffer = swapped.image->getBuffer();
  const std::vector<char> pixels = pixelBytes(*swapped.image);
  expectThrow<std::runtime_error>([&] { swapped.image->dump(); },
                                  {folder.file("missing") + "/vorn-swap-"});
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
    expectThrow<std::runtime_error>([&] { swapped.image->getBuffer(); }, {file});
    EXPECT_FALSE(swapped.hook->isDumped());
    EXPECT_EQ(swapped.image->getDimension(), 0u);
    EXPECT_FALSE(fs::exists(file));
  }
}

// The demo as a user runs it: on its built-in samples, then on an image file of its own output.
// Checks the files it writes and, against an independent count in the written mask files, the
// mask sizes it prints.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace {

namespace fs = std::filesystem;

// Runs the demo with `arguments`; its standard output, or "" when it fails.
std::string runDemo(const std::string& arguments, const fs::path& log) {
  const std::string command = std::string(VORN_DEMO) + " " + arguments + " > " + log.string();
  if (std::system(command.c_str()) != 0) return "";
  std::ifstream file(log);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<unsigned long> maskCounts(const std::string& text) {
  std::vector<unsigned long> counts;
  const std::regex line(R"(\nmask: (\d+) pixels inside)");
  for (auto m = std::sregex_iterator(text.begin(), text.end(), line); m != std::sregex_iterator();
       ++m) {
    counts.push_back(std::stoul((*m)[1]));
  }
  return counts;
}

std::vector<unsigned long> sizesOf(const vorn::ImageObject& image) {
  const vorn::Box& box = image.getBufferedRegion();
  return {box.m_size, box.m_size + box.m_dimension};
}

unsigned long nonZero(const vorn::ImageObject& mask) {
  const auto* pixels = static_cast<const unsigned char*>(mask.getBuffer());
  unsigned long count = 0;
  for (unsigned long k = 0; k < mask.getPixelNumber(); ++k) count += pixels[k] != 0;
  return count;
}

std::unique_ptr<vorn::ImageObject> read(const fs::path& path) {
  auto image = std::make_unique<vorn::ImageObject>();
  vorn::readImageFile(path.string(), *image);
  return image;
}

// Tests the run on the built-in samples: every stage's files, their sizes, the masks' counts,
// the graph, and the memory the swap frees.
TEST(Demo, BuiltInSamples) {
  const fs::path folder = fs::temp_directory_path() / "vorn-demo-test";
  fs::remove_all(folder);
  const std::string out = runDemo("--out " + folder.string(), folder.string() + ".log");
  ASSERT_FALSE(out.empty());
  const std::vector<std::string> stages = {"1-source", "2-gaussian", "3-threshold", "4-mask"};
  for (const std::string& stage : stages) {
    EXPECT_EQ((std::vector<unsigned long>{256, 256}),
              sizesOf(*read(folder / ("phantom-" + stage + ".png"))));
    EXPECT_EQ((std::vector<unsigned long>{96, 112, 96}),
              sizesOf(*read(folder / ("head-" + stage + ".nii.gz"))));
    EXPECT_EQ((std::vector<unsigned long>{112, 96}),
              sizesOf(*read(folder / ("head-" + stage + "-axis0.png"))));
    EXPECT_EQ((std::vector<unsigned long>{96, 112}),
              sizesOf(*read(folder / ("head-" + stage + "-axis2.png"))));
  }
  // The head's shape: the skull, filled, and its distance map, each counted independently.
  for (const std::string stage : {"5-largest", "6-fill", "7-distance"}) {
    EXPECT_EQ((std::vector<unsigned long>{96, 112, 96}),
              sizesOf(*read(folder / ("head-" + stage + ".nii.gz"))));
    EXPECT_TRUE(fs::exists(folder / ("head-" + stage + "-axis1.png")));
  }
  std::smatch shape;
  ASSERT_TRUE(std::regex_search(
      out, shape, std::regex(R"(largest component: (\d+) pixels; filled: (\d+) pixels)")));
  EXPECT_EQ(nonZero(*read(folder / "head-5-largest.nii.gz")), std::stoul(shape[1]));
  const auto filled = read(folder / "head-6-fill.nii.gz");
  EXPECT_EQ(nonZero(*filled), std::stoul(shape[2]));
  EXPECT_GT(std::stoul(shape[2]), 2 * std::stoul(shape[1]));  // the skull holds the brain
  const auto depth = read(folder / "head-7-distance.nii.gz");
  const auto* inside = static_cast<const unsigned char*>(filled->getBuffer());
  const auto* distance = static_cast<const float*>(depth->getBuffer());
  for (unsigned long k = 0; k < depth->getPixelNumber(); ++k) {
    ASSERT_EQ(inside[k] == 0, distance[k] == 0.0f) << "pixel " << k;
  }
  const std::vector<unsigned long> counts = maskCounts(out);
  ASSERT_EQ(3u, counts.size());
  EXPECT_EQ(nonZero(*read(folder / "phantom-3-threshold.png")), counts[0]);
  EXPECT_EQ(nonZero(*read(folder / "head-3-threshold.nii.gz")), counts[1]);
  EXPECT_GT(counts[2], counts[1]);  // the lower threshold takes the brain in
  EXPECT_NE(std::string::npos, out.find("ran again: mask stats threshold (source and gaussian"));
  EXPECT_GT(fs::file_size(folder / "pipeline.dot"), 100u);
  std::smatch peak;
  ASSERT_TRUE(std::regex_search(
      out, peak,
      std::regex(R"(at its peak: ([0-9.]+) MiB with every image in memory, ([0-9.]+))")));
#ifndef __SANITIZE_ADDRESS__  // AddressSanitizer holds freed memory back: the saving is hidden
  EXPECT_LT(std::stod(peak[2]) + 4, std::stod(peak[1]));  // the two images swapped: 5 MiB
#endif
  fs::remove_all(folder);
}

// Tests the run on a file of the user's (here one of the demo's own PNGs), and the refusal of
// a file that is not there.
TEST(Demo, OwnImage) {
  const fs::path folder = fs::temp_directory_path() / "vorn-demo-own";
  fs::remove_all(folder);
  ASSERT_FALSE(runDemo("--out " + folder.string(), folder.string() + ".log").empty());
  const std::string out =
      runDemo("--out " + folder.string() + " " + (folder / "phantom-1-source.png").string(),
              folder.string() + ".log");
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(nonZero(*read(folder / "yours-3-threshold.png")), maskCounts(out).at(0));
  EXPECT_EQ("", runDemo("--out " + folder.string() + " /no/such/file.png", folder / "err.log"));
  fs::remove_all(folder);
}

// Tests the demo on a real photograph from outside the project: Debian's scikit-image package
// ships a few (install-deps.sh installs it).
TEST(Demo, RealPhotograph) {
  const fs::path photo = "/usr/lib/python3/dist-packages/skimage/data/coins.png";
  if (!fs::exists(photo)) GTEST_SKIP() << photo << " is not installed";
  const fs::path folder = fs::temp_directory_path() / "vorn-demo-photo";
  fs::remove_all(folder);
  const std::string out =
      runDemo("--out " + folder.string() + " " + photo.string(), folder.string() + ".log");
  ASSERT_FALSE(out.empty());
  const auto mask = read(folder / "yours-3-threshold.png");
  EXPECT_EQ((std::vector<unsigned long>{384, 303}), sizesOf(*mask));
  const unsigned long inside = nonZero(*mask);
  EXPECT_EQ(inside, maskCounts(out).at(0));
  EXPECT_GT(inside, mask->getPixelNumber() / 4);  // the coins, brighter than the mean
  EXPECT_LT(inside, mask->getPixelNumber() * 3 / 4);
  fs::remove_all(folder);
}

}  // namespace

#include "VornRun.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CoutCapture.hpp"
#include "vorn/Box.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kWidth = 24;
constexpr unsigned kHeight = 16;

// A bright block with some texture on a dim ramp: smoothing and thresholding it at 120 keeps
// the middle of the block and drops its border and the background.
unsigned char sourcePixel(unsigned x, unsigned y) {
  const bool block = x >= 6 && x < 18 && y >= 4 && y < 12;
  return static_cast<unsigned char>(block ? 180 + (x * 3 + y) % 11 : 30 + x);
}

void writeGray(const std::string& path, unsigned width, unsigned height) {
  vorn::ImageObject image;
  vorn::Box box(2);
  box.m_size[0] = width;
  box.m_size[1] = height;
  image.Allocate(vorn::PixelType::UCHAR, box);
  auto* pixels = static_cast<unsigned char*>(image.getBuffer());
  for (unsigned y = 0; y < height; ++y) {
    for (unsigned x = 0; x < width; ++x) pixels[y * width + x] = sourcePixel(x, y);
  }
  vorn::writeImageFile(image, path);
}

std::vector<unsigned char> readGray(const std::string& path) {
  vorn::ImageObject image;
  vorn::readImageFile(path, image);
  EXPECT_EQ(image.getPointType(), vorn::PixelType::UCHAR) << path;
  const auto* pixels = static_cast<const unsigned char*>(std::as_const(image).getBuffer());
  return std::vector<unsigned char>(pixels, pixels + image.getPixelNumber());
}

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class VornRun : public ::testing::Test {
 protected:
  VornRun()
      : dir(fs::temp_directory_path() /
            ("vorn-run-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
    fs::create_directories(dir);
    writeGray(path("in.png"), kWidth, kHeight);
  }
  ~VornRun() override { fs::remove_all(dir); }

  std::string path(const std::string& name) const { return (dir / name).string(); }

  int run(const std::vector<std::string>& args) {
    out.str("");
    err.str("");
    progress.take();
    return runVornRun(args, out, err);
  }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // The failure was reported on exactly one line, and nothing else was said on `out`.
  void expectOneErrorLine(const std::string& culprit) const {
    const std::string text = err.str();
    EXPECT_EQ(text.rfind("vorn-run: ", 0), 0u) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find(culprit), std::string::npos) << text;
    EXPECT_EQ(out.str(), "");
  }

  fs::path dir;
  CoutCapture progress;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(VornRun, MasksTheSourceWhereTheSmoothedImageIsBright) {
  const std::string in = path("in.png");
  ASSERT_EQ(run({"read file=" + in + " as=src ! gaussian sigma=2 ! threshold lower=120 as=m ; " +
                 "@src ! mask in1=m ! write file=" + path("out.png")}),
            0)
      << err.str();
  EXPECT_EQ(err.str(), "");
  EXPECT_TRUE(std::regex_match(out.str(), std::regex("vorn-run: done in [0-9]+\\.[0-9]{3} s\n")))
      << out.str();
  const std::string lines = progress.take();
  EXPECT_NE(lines.find("Processing with operator : src"), std::string::npos) << lines;
  EXPECT_NE(lines.find("Processing with operator : mask"), std::string::npos) << lines;

  // The mask on its own, from the same words split over several arguments.
  ASSERT_EQ(run({"read", "file=" + in, "!", "gaussian", "sigma=2", "!", "threshold", "lower=120",
                 "!", "write", "file=" + path("m.png")}),
            0)
      << err.str();
  const std::vector<unsigned char> source = readGray(in);
  const std::vector<unsigned char> mask = readGray(path("m.png"));
  const std::vector<unsigned char> masked = readGray(path("out.png"));
  ASSERT_EQ(mask.size(), source.size());
  ASSERT_EQ(masked.size(), source.size());
  const auto inside = std::count_if(mask.begin(), mask.end(), [](int v) { return v != 0; });
  EXPECT_GT(inside, 10);
  EXPECT_LT(inside, static_cast<long>(source.size()) - 10);
  for (std::size_t i = 0; i < source.size(); ++i) {
    ASSERT_EQ(masked[i], mask[i] != 0 ? source[i] : 0) << "pixel " << i;
  }
}

TEST_F(VornRun, QuietSilencesProgressButNotStatisticsAndDotDrawsTheGraph) {
  const std::string text = "read file=" + path("in.png") + " as=src ! stats ! threshold " +
                           "lower=100 as=m ; @src ! mask in1=m ! write file=" + path("out.png");
  ASSERT_EQ(run({"-q", "--dot", path("g.dot"), text}), 0) << err.str();
  EXPECT_EQ(progress.take(), "");
  EXPECT_NE(out.str().find("stats: count=384 "), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("vorn-run: done in "), std::string::npos) << out.str();
  const std::string dot = contents(path("g.dot"));
  EXPECT_EQ(dot.rfind("digraph vorn {\n", 0), 0u) << dot;
  EXPECT_NE(dot.find("op0 [label=\"write\\nfile="), std::string::npos) << dot;
  EXPECT_NE(dot.find("[label=\"m\\nlower=100\\nupper=\\ninside=1\\noutside=0\"]"),
            std::string::npos)
      << dot;
  EXPECT_NE(dot.find(" -> op1 [label=\"1\"];"), std::string::npos) << "mask's input 1\n" << dot;

  ASSERT_EQ(run({"read file=" + path("in.png") + " ! stats"}), 0) << err.str();
  EXPECT_NE(progress.take().find("Processing with operator : stats"), std::string::npos);
  EXPECT_NE(out.str().find("stats: count=384 "), std::string::npos) << out.str();
}

TEST_F(VornRun, HelpListsEveryOperatorAndVersionNamesTheRelease) {
  ASSERT_EQ(run({"--help"}), 0);
  const std::string help = out.str();
  for (const char* name : {"read", "write", "cast", "gaussian", "threshold", "mask", "stats"}) {
    EXPECT_TRUE(std::regex_search(help, std::regex(std::string("\n  ") + name + " +[A-Z]")))
        << name << "\n"
        << help;
  }
  EXPECT_NE(help.find("sigma=1 "), std::string::npos) << "parameters with their defaults";
  ASSERT_EQ(run({"--version"}), 0);
  EXPECT_EQ(out.str(), "vorn-run 0.1.0\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(VornRun, MalformedPipelinesAndOptionsExitWith2BeforeAnythingRuns) {
  const std::string read = "read file=" + path("in.png");
  const std::string write = " ! write file=" + path("out.png");
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{read + " ! blur" + write}, "unknown operator 'blur'"},
      {{read + " ! gaussian sigm=2" + write}, "unknown parameter 'sigm'"},
      {{read + " ! gaussian sigma=1 sigma=2" + write}, "'sigma' given twice"},
      {{read + " ! mask" + write}, "input 1 is not fed"},
      {{read + " as=s ! gaussian in1=s" + write}, "no input 1"},
      {{read + " ! mask in1=x" + write}, "unknown label 'x'"},
      {{read + " as=s ; " + read + " as=s" + write}, "label 's' defined twice"},
      {{"@b ! gaussian as=a ; @a ! gaussian as=b" + write}, "cycle through labels"},
      {{read + " ! !" + write}, "empty stage"},
      {{}, "empty pipeline"},
      {{read + " ! gaussian roi=1:0" + write}, "malformed roi"},
      {{"--verbose", read + write}, "unknown option '--verbose'"},
      {{"--dot"}, "--dot needs a file name"},
  };
  for (const auto& [args, culprit] : cases) {
    SCOPED_TRACE(culprit);
    EXPECT_EQ(run(args), 2);
    expectOneErrorLine(culprit);
    EXPECT_EQ(progress.take().find("Processing"), std::string::npos) << "nothing ran";
  }
  EXPECT_EQ(files(), std::vector<std::string>{"in.png"});
}

TEST_F(VornRun, RunFailuresExitWith1AndLeaveNoFileBehind) {
  writeGray(path("small.png"), 8, 8);
  const std::string write = " ! write file=" + path("out.png");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"read file=" + path("missing.png") + write, "missing.png"},
      {"read file=" + path("in.png") + " ! gaussian sigma=abc" + write, "'sigma'"},
      {"read file=" + path("in.png") + " as=s ; read file=" + path("small.png") +
           " as=m ; @s ! mask in1=m" + write,
       "mask"},
  };
  for (const auto& [text, culprit] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(run({text}), 1);
    expectOneErrorLine(culprit);
  }
  // A graph that cannot be written stops the run before it starts.
  EXPECT_EQ(run({"--dot", path("no/g.dot"), "read file=" + path("in.png") + write}), 1);
  expectOneErrorLine("cannot write the graph");
  EXPECT_EQ(files(), (std::vector<std::string>{"in.png", "small.png"}));
}

TEST_F(VornRun, FailureAfterAWriterSucceededStillLeavesNoFile) {
  {
    std::ofstream old(path("a.png"), std::ios::binary);
    old << "the previous a.png";
  }
  const std::string text = "read file=" + path("in.png") + " ! write file=" + path("a.png") +
                           " ; read file=" + path("in.png") + " ! write file=" + path("b.png") +
                           " ; read file=" + path("missing.png") + " ! write file=" + path("c.png");
  EXPECT_EQ(run({"-q", text}), 1);
  expectOneErrorLine("missing.png");
  EXPECT_EQ(files(), (std::vector<std::string>{"a.png", "in.png"}));
  EXPECT_EQ(contents(path("a.png")), "the previous a.png");
}

}  // namespace

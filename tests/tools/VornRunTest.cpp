#include "VornRun.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "../operators/OperatorTestSupport.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace {

// 24 x 16: a bright block with some texture on a dim ramp. Smoothing and thresholding it at 120
// keeps the middle of the block and drops its border and the background.
ImagePtr sourceImage() {
  std::vector<unsigned char> pixels;
  for (unsigned y = 0; y < 16; ++y) {
    for (unsigned x = 0; x < 24; ++x) {
      const bool block = x >= 6 && x < 18 && y >= 4 && y < 12;
      pixels.push_back(static_cast<unsigned char>(block ? 180 + (x * 3 + y) % 11 : 30 + x));
    }
  }
  return makeImage<unsigned char>({24, 16}, pixels);
}

std::vector<double> readValues(const std::string& path) {
  vorn::ImageObject image;
  vorn::readImageFile(path, image);
  return valuesOf(image);
}

std::string readText(const std::string& path) {
  const Bytes bytes = readBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

class VornRun : public ::testing::Test {
 protected:
  VornRun() { vorn::writeImageFile(*sourceImage(), in); }

  int run(const std::vector<std::string>& args) {
    out.str("");
    err.str("");
    progress.take();
    return runVornRun(args, out, err);
  }

  // The failure was reported on exactly one line, and nothing else was said on `out`.
  void expectOneErrorLine(const std::string& culprit) const {
    const std::string text = err.str();
    EXPECT_EQ(text.rfind("vorn-run: ", 0), 0u) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find(culprit), std::string::npos) << text;
    EXPECT_EQ(out.str(), "");
  }

  TempFolder folder;
  const std::string in = folder.file("in.png");
  const std::string write = " ! write file=" + folder.file("out.png");
  CoutCapture progress;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(VornRun, MasksTheSourceWhereTheSmoothedImageIsBright) {
  ASSERT_EQ(run({"read file=" + in + " as=src ! gaussian sigma=2 ! threshold lower=120 as=m ; " +
                 "@src ! mask in1=m" + write}),
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
                 "!", "write", "file=" + folder.file("m.png")}),
            0)
      << err.str();
  const std::vector<double> source = readValues(in);
  const std::vector<double> mask = readValues(folder.file("m.png"));
  const std::vector<double> masked = readValues(folder.file("out.png"));
  ASSERT_EQ(mask.size(), source.size());
  ASSERT_EQ(masked.size(), source.size());
  const long inside = std::count_if(mask.begin(), mask.end(), [](double v) { return v != 0; });
  EXPECT_GT(inside, 10);
  EXPECT_LT(inside, static_cast<long>(source.size()) - 10);
  for (std::size_t i = 0; i < source.size(); ++i) {
    ASSERT_EQ(masked[i], mask[i] != 0 ? source[i] : 0) << "pixel " << i;
  }
}

TEST_F(VornRun, QuietSilencesProgressButNotStatisticsAndDotDrawsTheGraph) {
  const std::string text = "read file=" + in + " as=src ! stats ! threshold lower=100 as=m ; " +
                           "@src ! mask in1=m" + write;
  ASSERT_EQ(run({"-q", "-j", "3", "--dot", folder.file("g.dot"), text}), 0) << err.str();
  EXPECT_EQ(progress.take(), "");
  EXPECT_NE(out.str().find("stats: count=384 "), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("vorn-run: done in "), std::string::npos) << out.str();
  const std::string dot = readText(folder.file("g.dot"));
  EXPECT_EQ(dot.rfind("digraph vorn {\n", 0), 0u) << dot;
  EXPECT_NE(dot.find("op0 [label=\"write\\nfile="), std::string::npos) << dot;
  EXPECT_NE(dot.find("[label=\"m\\nlower=100\\nupper=\\ninside=1\\noutside=0\\nthreads=\"]"),
            std::string::npos)
      << dot;
  EXPECT_NE(dot.find(" -> op1 [label=\"1\"];"), std::string::npos) << "mask's input 1\n" << dot;
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
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"read file=" + in + " ! gaussian sigm=2" + write}, "unknown parameter 'sigm'"},
      {{}, "empty pipeline"},
      {{"--verbose", "read file=" + in + write}, "unknown option '--verbose'"},
      {{"--dot"}, "--dot needs a file name"},
      {{"-j", "-1", "read file=" + in + write}, "-j needs a thread count from 0 to 1024"},
      {{"--threads", "2.5", "read file=" + in + write}, "--threads needs a thread count"},
      {{"-j"}, "-j needs a thread count"},
  };
  for (const auto& [args, culprit] : cases) {
    SCOPED_TRACE(culprit);
    EXPECT_EQ(run(args), 2);
    expectOneErrorLine(culprit);
    EXPECT_EQ(progress.take().find("Processing"), std::string::npos) << "nothing ran";
  }
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"in.png"});
}

TEST_F(VornRun, RunFailuresExitWith1AndLeaveNoFileBehind) {
  writeBytes(folder.file("a.png"), {'o', 'l', 'd'});
  const std::string read = "read file=" + in;
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{read + " ! gaussian sigma=abc" + write}, "'sigma'"},
      {{"--dot", folder.file("no/g.dot"), read + write}, "cannot write the graph"},
      // The first two writers are done before the last reader fails.
      {{"-q", read + " ! write file=" + folder.file("a.png") + " ; " + read + " ! write file=" +
                  folder.file("b.png") + " ; read file=" + folder.file("missing.png") + write},
       "missing.png"},
  };
  for (const auto& [args, culprit] : cases) {
    SCOPED_TRACE(culprit);
    EXPECT_EQ(run(args), 1);
    expectOneErrorLine(culprit);
  }
  EXPECT_EQ(folder.entries(), (std::vector<std::string>{"a.png", "in.png"}));
  EXPECT_EQ(readText(folder.file("a.png")), "old");
}

}  // namespace

// BinaryThreshold, MaskOperator and StatisticsOperator, the three small per-pixel operators,
// and images without pixels through all five computing operators.
#include <gtest/gtest.h>

#include <cmath>
#include <ios>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "ImageSourceOperator.hpp"
#include "vorn/operators/BinaryThreshold.hpp"
#include "vorn/operators/CastOperator.hpp"
#include "vorn/operators/GaussianSmoothing.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

using Bytes = std::vector<unsigned char>;

// Expects the update to fail with a message holding every piece of `parts`.
void expectFailure(vorn::ProcessObject& op, const std::vector<std::string>& parts) {
  try {
    run(op);
    ADD_FAILURE() << op.getName() << " accepted what it should refuse";
  } catch (const std::ios_base::failure& e) {
    const std::string what = e.what();
    for (const std::string& part : parts) EXPECT_NE(what.find(part), std::string::npos) << what;
  }
}

struct Threshold {
  explicit Threshold(ImagePtr image) : source(image) { connectInputs(op, {&source}); }
  Bytes operator()(const std::string& lower, const std::string& upper) {
    op.setParameterValue("lower", lower);
    op.setParameterValue("upper", upper);
    run(op);
    EXPECT_EQ(outputOf(op)->getPointType(), vorn::PixelType::UCHAR);
    return pixelsOf<unsigned char>(*outputOf(op));
  }
  ImageSource source;
  vorn::BinaryThreshold op;
};

TEST(BinaryThreshold, DefaultBoundsTakeInEveryNumber) {
  EXPECT_EQ(Threshold(makeImage<unsigned char>({3}, {0, 17, 255}))("", ""), (Bytes{1, 1, 1}));
  EXPECT_EQ(Threshold(makeImage<short>({3}, {-32768, 0, 32767}))("", ""), (Bytes{1, 1, 1}));
  EXPECT_EQ(Threshold(makeImage<float>({4}, {-kInf, 3.5f, kInf, kNaN}))("", ""),
            (Bytes{1, 1, 1, 0}));
}

TEST(BinaryThreshold, BoundsAreInclusiveAndOneMayBeLeftOpen) {
  Threshold shorts(makeImage<short>({5}, {9, 10, 15, 20, 21}));
  EXPECT_EQ(shorts("10", "20"), (Bytes{0, 1, 1, 1, 0}));
  EXPECT_EQ(shorts("15", ""), (Bytes{0, 0, 1, 1, 1}));
  EXPECT_EQ(shorts("", "9.5"), (Bytes{1, 0, 0, 0, 0}));
  EXPECT_EQ(shorts("15", "15"), (Bytes{0, 0, 1, 0, 0}));
  Threshold floats(makeImage<float>({5}, {-0.25f, -0.125f, 0.5f, 0.75f, kNaN}));
  EXPECT_EQ(floats("-0.125", "0.5"), (Bytes{0, 1, 1, 0, 0}));
  EXPECT_EQ(floats("-1e30", "1e30"), (Bytes{1, 1, 1, 1, 0}));
}

TEST(BinaryThreshold, LowerAboveUpperLeavesEverythingOutside) {
  EXPECT_EQ(Threshold(makeImage<unsigned char>({3}, {4, 5, 6}))("6", "4"), (Bytes{0, 0, 0}));
}

TEST(BinaryThreshold, CustomValuesAndGeometry) {
  const ImagePtr image = makeImage<unsigned char>({2, 2}, {1, 2, 3, 4});
  image->setSpacing(1, 3.0);
  image->setOrigin(0, 4.0);
  Threshold threshold(image);
  EXPECT_EQ(threshold.op.getName(), "BinaryThreshold");
  EXPECT_EQ(threshold.op.getParameterValue("inside"), "1");
  EXPECT_EQ(threshold.op.getParameterValue("outside"), "0");
  threshold.op.setParameterValue("inside", "0");
  threshold.op.setParameterValue("outside", "255");
  EXPECT_EQ(threshold("2", "3"), (Bytes{255, 0, 0, 255}));
  const ImagePtr out = outputOf(threshold.op);
  EXPECT_TRUE(out->getBufferedRegion() == image->getBufferedRegion());
  EXPECT_EQ(out->getSpacing(1), 3.0);
  EXPECT_EQ(out->getOrigin(0), 4.0);
}

TEST(BinaryThreshold, BadValuesFailNamingThemAndKeepThePreviousOutput) {
  Threshold threshold(makeImage<unsigned char>({2}, {1, 9}));
  threshold("5", "");
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"lower", "abc"},  {"upper", "1,2"},  {"upper", "inf"}, {"inside", "256"},
      {"outside", "-1"}, {"inside", "1.5"}, {"inside", ""},   {"outside", " 3"}};
  for (const auto& [name, value] : bad) {
    vorn::BinaryThreshold& op = threshold.op;
    const std::string previous = op.getParameterValue(name);
    op.setParameterValue(name, value);
    expectFailure(op,
                  {"BinaryThreshold: parameter '" + name + "' has invalid value '" + value + "'"});
    EXPECT_EQ(pixelsOf<unsigned char>(*outputOf(op)), (Bytes{0, 1}));
    op.setParameterValue(name, previous);
  }
}

// The mask operator on an image of type T, with its source and the mask's.
template <class T>
struct Masking {
  Masking(const std::vector<T>& pixels, const Bytes& mask)
      : image(makeImage<T>({3, 2}, pixels)),
        imageSource(image),
        maskSource(makeImage<unsigned char>({6}, mask)) {
    connectInputs(op, {&imageSource, &maskSource});
  }
  ImagePtr image;
  ImageSource imageSource;
  ImageSource maskSource;
  vorn::MaskOperator op;
};

template <class T>
void expectMasked(const std::vector<T>& pixels, const std::vector<T>& expected) {
  Masking<T> masking(pixels, {1, 0, 255, 0, 7, 1});
  run(masking.op);
  EXPECT_EQ(outputOf(masking.op)->getPointType(), vorn::returnPixelType<T>());
  EXPECT_EQ(pixelsOf<T>(*outputOf(masking.op)), expected);
  EXPECT_EQ(pixelsOf<T>(*masking.image), pixels);
}

TEST(MaskOperator, ZeroesPixelsOutsideTheMaskForEachType) {
  expectMasked<unsigned char>({1, 2, 3, 4, 5, 6}, {1, 0, 3, 0, 5, 6});
  expectMasked<short>({-1, -2, -3, -4, -5, -6}, {-1, 0, -3, 0, -5, -6});
  expectMasked<float>({0.5f, kInf, -2.5f, 3, 4e9f, -7}, {0.5f, 0, -2.5f, 0, 4e9f, -7});
  vorn::MaskOperator mask;
  EXPECT_EQ(mask.getName(), "MaskOperator");
}

TEST(MaskOperator, RefusesAMaskOfAnotherSizeOrTypeAndKeepsThePreviousOutput) {
  Masking<short> masking({1, 2, 3, 4, 5, 6}, {0, 0, 0, 1, 1, 1});
  run(masking.op);
  const std::vector<short> previous = {0, 0, 0, 4, 5, 6};
  masking.maskSource.setImage(makeImage<unsigned char>({7}, Bytes(7, 1)));
  expectFailure(masking.op, {"MaskOperator", "7", "6"});
  EXPECT_EQ(pixelsOf<short>(*outputOf(masking.op)), previous);
  masking.maskSource.setImage(makeImage<short>({6}, std::vector<short>(6, 1)));
  expectFailure(masking.op, {"MaskOperator", "short"});
  EXPECT_EQ(pixelsOf<short>(*outputOf(masking.op)), previous);
  EXPECT_EQ(pixelsOf<short>(*masking.image), (std::vector<short>{1, 2, 3, 4, 5, 6}));
}

struct Statistics {
  explicit Statistics(ImagePtr image) : source(image) {
    connectInputs(op, {&source});
    op.setStream(&log);
  }
  ImageSource source;
  vorn::StatisticsOperator op;
  std::ostringstream log;
};

TEST(StatisticsOperator, FiguresOfOneToN) {
  const unsigned long n = 1000;
  std::vector<float> pixels;
  for (unsigned long k = 1; k <= n; ++k) pixels.push_back(static_cast<float>(k));
  Statistics stats(makeImage<float>({10, 100}, pixels));
  run(stats.op);
  const vorn::ImageStatistics& s = stats.op.getStatistics();
  EXPECT_EQ(s.count, n);
  EXPECT_EQ(s.min, 1.0);
  EXPECT_EQ(s.max, 1000.0);
  EXPECT_DOUBLE_EQ(s.mean, 500.5);
  EXPECT_DOUBLE_EQ(s.stddev, 288.6749902572095);  // sqrt((n^2 - 1) / 12)
  EXPECT_EQ(s.sum, 500500.0);
  EXPECT_EQ(stats.log.str(),
            "StatisticsOperator: count=1000 min=1 max=1000 mean=500.5 stddev=288.6749903 "
            "sum=500500\n");
}

TEST(StatisticsOperator, PassesACopyThrough) {
  const ImagePtr image = makeImage<unsigned char>({2, 2}, {0, 255, 255, 0});
  image->setSpacing(0, 2.0);
  Statistics stats(image);
  run(stats.op);
  const ImagePtr out = outputOf(stats.op);
  EXPECT_NE(out->getBuffer(), image->getBuffer());
  EXPECT_EQ(pixelsOf<unsigned char>(*out), (Bytes{0, 255, 255, 0}));
  EXPECT_EQ(out->getSpacing(0), 2.0);
  EXPECT_EQ(stats.log.str(),
            "StatisticsOperator: count=4 min=0 max=255 mean=127.5 stddev=127.5 sum=510\n");
}

TEST(StatisticsOperator, LeavesNaNOut) {
  Statistics stats(makeImage<float>({4}, {1, kNaN, 3, -kInf}));
  run(stats.op);
  EXPECT_EQ(stats.op.getStatistics().count, 3u);
  EXPECT_EQ(stats.op.getStatistics().min, -kInf);
  Statistics none(makeImage<float>({2}, {kNaN, kNaN}));
  run(none.op);
  EXPECT_EQ(none.op.getStatistics().count, 0u);
  EXPECT_EQ(none.op.getStatistics().sum, 0.0);
  EXPECT_TRUE(std::isnan(none.op.getStatistics().mean));
  EXPECT_EQ(none.log.str(),
            "StatisticsOperator: count=0 min=nan max=nan mean=nan stddev=nan sum=0\n");
}

TEST(StatisticsOperator, OnStandardOutputTheLineStartsAfterTheEnginesOpenLine) {
  ImageSource source(makeImage<short>({3}, {-1, 0, 1}));
  vorn::StatisticsOperator stats;
  connectInputs(stats, {&source});
  run(source);
  CoutCapture capture;
  stats.update();
  const std::string expected =
      "Processing with operator : StatisticsOperator - adr : " + addressText(&stats) +
      "\nStatisticsOperator: count=3 min=-1 max=1 mean=0 "
      "stddev=0.8164965809 sum=0\n. Computation done in ";
  EXPECT_EQ(capture.str().substr(0, expected.size()), expected);
}

TEST(StatisticsOperator, NullStreamPrintsNothing) {
  ImageSource source(makeImage<short>({3}, {-1, 0, 1}));
  vorn::StatisticsOperator stats;
  connectInputs(stats, {&source});
  stats.setStream(nullptr);
  run(source);
  CoutCapture capture;
  stats.update();
  EXPECT_EQ(capture.str().find("count="), std::string::npos) << capture.str();
  EXPECT_EQ(stats.getStatistics().count, 3u);
}

// An image with an axis of size 0 has a type but no pixels and no buffer.
TEST(ZeroPixelImages, GoThroughEveryOperatorWithoutHarm) {
  const ImagePtr empty = makeImage<short>({0, 3}, {});
  ImageSource source(empty);
  ImageSource maskSource(makeImage<unsigned char>({3, 0}, {}));
  vorn::CastOperator cast;
  vorn::GaussianSmoothing smooth;
  vorn::BinaryThreshold threshold;
  vorn::MaskOperator mask;
  vorn::StatisticsOperator stats;
  std::ostringstream log;
  stats.setStream(&log);
  for (vorn::ProcessObject* op :
       std::vector<vorn::ProcessObject*>{&cast, &smooth, &threshold, &stats}) {
    connectInputs(*op, {&source});
    run(*op);
    EXPECT_EQ(outputOf(*op)->getPixelNumber(), 0u) << op->getName();
    EXPECT_TRUE(outputOf(*op)->getBufferedRegion() == empty->getBufferedRegion()) << op->getName();
  }
  connectInputs(mask, {&source, &maskSource});
  run(mask);
  EXPECT_EQ(outputOf(mask)->getPixelNumber(), 0u);
  EXPECT_EQ(log.str(), "StatisticsOperator: count=0 min=nan max=nan mean=nan stddev=nan sum=0\n");
}

}  // namespace

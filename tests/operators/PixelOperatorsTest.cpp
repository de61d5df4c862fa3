// The per-pixel operators (cast, threshold, mask, statistics), the parameter errors of every
// computing operator, and images without pixels through each of them.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "NeighbourhoodTestSupport.hpp"
#include "OperatorTestSupport.hpp"
#include "vorn/operators/BinaryThreshold.hpp"
#include "vorn/operators/CastOperator.hpp"
#include "vorn/operators/GaussianSmoothing.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
using Parameters = std::vector<std::pair<std::string, std::string>>;
constexpr auto UCHAR = vorn::PixelType::UCHAR;
constexpr auto SHORT = vorn::PixelType::SHORT;
constexpr auto FLOAT = vorn::PixelType::FLOAT;

TEST(CastOperator, RoundsHalfAwayFromZeroClampsAndKeepsGeometry) {
  const ImagePtr floats = makeImage<float>({4, 3}, {-1.5f, -0.5f, 0.5f, 2.5f, 300.7f, -40000.0f,
                                                    kNaN, kInf, -kInf, 2.49f, -0.0f, 32767.5f});
  const ImagePtr shorts = makeImage<short>({6}, {-5, 0, 255, 256, 32767, -32768});
  const ImagePtr bytes = makeImage<unsigned char>({2, 2}, {0, 1, 128, 255});
  const struct {
    ImagePtr in;
    std::string type;
    vorn::PixelType::Type to;
    std::vector<double> expected;
  } cases[] = {
      {floats, "uchar", UCHAR, {0, 0, 1, 3, 255, 0, 0, 255, 0, 2, 0, 255}},
      {floats, "short", SHORT, {-2, -1, 1, 3, 301, -32768, 0, 32767, -32768, 2, 0, 32767}},
      {shorts, "uchar", UCHAR, {0, 0, 255, 255, 255, 0}},
      {shorts, "float", FLOAT, {-5, 0, 255, 256, 32767, -32768}},
      {bytes, "short", SHORT, {0, 1, 128, 255}},
      {bytes, "float", FLOAT, {0, 1, 128, 255}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(vorn::getTypeIdName(c.in->getPointType()) + " to " + c.type);
    const ImagePtr out = runOn<vorn::CastOperator>(c.in, {{"type", c.type}});
    EXPECT_EQ(out->getPointType(), c.to);
    EXPECT_EQ(valuesOf(*out), c.expected);
    expectSameGeometry(*out, *c.in);
  }
  // Float to float keeps every bit, NaN and -0 included.
  EXPECT_EQ(pixelBytes(*runOn<vorn::CastOperator>(floats, {{"type", "float"}})),
            pixelBytes(*floats));
}

TEST(BinaryThreshold, BoundsAreInclusiveEitherMayBeOpenAndNaNIsOutside) {
  const ImagePtr shorts = makeImage<short>({5}, {9, 10, 15, 20, 21});
  const ImagePtr floats = makeImage<float>({5}, {-0.25f, -0.125f, 0.5f, 0.75f, kNaN});
  const struct {
    ImagePtr in;
    Parameters parameters;
    Bytes expected;
  } cases[] = {
      {makeImage<unsigned char>({3}, {0, 17, 255}), {}, {1, 1, 1}},
      {makeImage<short>({3}, {-32768, 0, 32767}), {}, {1, 1, 1}},
      {makeImage<float>({4}, {-kInf, 3.5f, kInf, kNaN}), {}, {1, 1, 1, 0}},
      {shorts, {{"lower", "10"}, {"upper", "20"}}, {0, 1, 1, 1, 0}},
      {shorts, {{"lower", "15"}}, {0, 0, 1, 1, 1}},
      {shorts, {{"upper", "9.5"}}, {1, 0, 0, 0, 0}},
      {shorts, {{"lower", "15"}, {"upper", "15"}}, {0, 0, 1, 0, 0}},
      {shorts, {{"lower", "16"}, {"upper", "14"}}, {0, 0, 0, 0, 0}},
      {floats, {{"lower", "-0.125"}, {"upper", "0.5"}}, {0, 1, 1, 0, 0}},
      {floats, {{"lower", "-1e30"}, {"upper", "1e30"}}, {1, 1, 1, 1, 0}},
      {shorts,
       {{"lower", "10"}, {"upper", "15"}, {"inside", "0"}, {"outside", "255"}},
       {255, 0, 0, 255, 255}},
  };
  for (const auto& c : cases) {
    const ImagePtr out = runOn<vorn::BinaryThreshold>(c.in, c.parameters);
    ASSERT_EQ(out->getPointType(), vorn::PixelType::UCHAR);
    EXPECT_EQ(pixelsOf<unsigned char>(*out), c.expected) << &c - cases;
    expectSameGeometry(*out, *c.in);
  }
}

TEST(MaskOperator, ZeroesPixelsOutsideTheMaskAndRefusesAMaskThatDoesNotFit) {
  const ImagePtr mask = makeImage<unsigned char>({6}, {1, 0, 255, 0, 7, 1});
  const struct {
    ImagePtr in;
    std::vector<double> expected;
  } cases[] = {
      {makeImage<unsigned char>({3, 2}, {1, 2, 3, 4, 5, 6}), {1, 0, 3, 0, 5, 6}},
      {makeImage<short>({3, 2}, {-1, -2, -3, -4, -5, -6}), {-1, 0, -3, 0, -5, -6}},
      {makeImage<float>({3, 2}, {0.5f, kInf, -2.5f, 3, 4e9f, -7}), {0.5, 0, -2.5, 0, 4e9, -7}},
  };
  for (const auto& c : cases) {
    const std::vector<char> input = pixelBytes(*c.in);
    ImageSource imageSource(c.in);
    ImageSource maskSource(mask);
    vorn::MaskOperator op;
    connectInputs(op, {&imageSource, &maskSource});
    run(op);
    EXPECT_EQ(outputOf(op)->getPointType(), c.in->getPointType());
    EXPECT_EQ(valuesOf(*outputOf(op)), c.expected);
    EXPECT_EQ(pixelBytes(*c.in), input);
    if (c.in->getPointType() != vorn::PixelType::SHORT) continue;
    maskSource.setImage(makeImage<unsigned char>({7}, {1}));
    expectUpdateFailure(op, "MaskOperator: the mask (input 1) has 7 pixels, the image (input 0) 6");
    maskSource.setImage(makeImage<short>({6}, {1}));
    expectUpdateFailure(op, "MaskOperator: the mask (input 1) holds short");
    EXPECT_EQ(valuesOf(*outputOf(op)), c.expected);
  }
}

// Pixel by pixel, a region is computed exactly and the rest is 0, for every input type.
TEST(PixelOperators, RegionOfInterestAndThreadsKeepTheBits) {
  const unsigned long n = 13 * 11 * 9;
  const ImagePtr floats = makeImage({13, 11, 9}, randomValues<float>(n, 5, -300, 300));
  const ImagePtr shorts = makeImage({13, 11, 9}, randomValues<short>(n, 6, -300, 300));
  const ImagePtr bytes = makeImage({13, 11, 9}, randomValues<unsigned char>(n, 7, 0, 3));
  const struct {
    std::string op;
    ImagePtr image;
    Parameters parameters;
    ImagePtr second;
  } cases[] = {
      {"threshold", floats, {{"lower", "-100"}, {"upper", "200"}, {"outside", "7"}}, nullptr},
      {"threshold", bytes, {{"lower", "2"}}, nullptr},
      {"cast", shorts, {{"type", "uchar"}}, nullptr},
      {"cast", floats, {{"type", "short"}}, nullptr},
      {"mask", shorts, {}, bytes},
      {"math", floats, {{"op", "mul"}, {"value", "-3"}}, nullptr},
  };
  for (const auto& c : cases)
    expectRegionAndThreadsKeepTheBits(c.op, c.image, c.parameters, c.second);
}

// A bad value fails the update naming operator, parameter and value, and the output of the
// last good update stays.
TEST(OperatorParameters, BadValuesFailNamingThemAndKeepThePreviousOutput) {
  ImageSource source(makeImage<float>({3, 2}, {1, 2, 3, 4, 5, 6}));
  const auto cast = boost::make_shared<vorn::CastOperator>();
  const auto smooth = boost::make_shared<vorn::GaussianSmoothing>();
  const auto threshold = boost::make_shared<vorn::BinaryThreshold>();
  const struct {
    boost::shared_ptr<vorn::ProcessObject> op;
    std::string name;
    std::string parameter;
    std::vector<std::string> values;
  } cases[] = {
      {cast, "CastOperator", "type", {"double", "", "Float", "uchar "}},
      {smooth,
       "GaussianSmoothing",
       "sigma",
       {"abc", "-1", "1,2,3", "", "1,,2", "2e6", "0,-0.5", "nan"}},
      {threshold, "BinaryThreshold", "lower", {"abc"}},
      {threshold, "BinaryThreshold", "upper", {"1,2", "inf"}},
      {threshold, "BinaryThreshold", "inside", {"256", "1.5", ""}},
      {threshold, "BinaryThreshold", "outside", {"-1", " 3"}},
  };
  for (const auto& c : cases) {
    vorn::ProcessObject& op = *c.op;
    connectInputs(op, {&source});
    run(op);
    const std::vector<char> previous = pixelBytes(*outputOf(op));
    const std::string good = op.getParameterValue(c.parameter);
    for (const std::string& value : c.values) {
      op.setParameterValue(c.parameter, value);
      expectUpdateFailure(
          op, c.name + ": parameter '" + c.parameter + "' has invalid value '" + value + "'");
      EXPECT_EQ(pixelBytes(*outputOf(op)), previous);
    }
    op.setParameterValue(c.parameter, good);
  }
  threshold->setParameterValue("lower", "+3.5");  // a leading plus is a number like any other
  EXPECT_NO_THROW(run(*threshold));
}

struct Statistics {
  explicit Statistics(ImagePtr image) : source(image) {
    connectInputs(op, {&source});
    op.setStream(&log);
    run(op);
  }
  ImageSource source;
  vorn::StatisticsOperator op;
  std::ostringstream log;
};

TEST(StatisticsOperator, FiguresOfOneToNLeaveNaNOutAndACopyPassesThrough) {
  std::vector<float> pixels;
  for (int k = 1; k <= 1000; ++k) pixels.push_back(static_cast<float>(k));
  const ImagePtr image = makeImage<float>({10, 100}, pixels);
  Statistics stats(image);
  EXPECT_DOUBLE_EQ(stats.op.getStatistics().mean, 500.5);
  EXPECT_DOUBLE_EQ(stats.op.getStatistics().stddev, 288.6749902572095);  // sqrt((n^2 - 1) / 12)
  EXPECT_EQ(stats.log.str(),
            "StatisticsOperator: count=1000 min=1 max=1000 mean=500.5 stddev=288.6749903 "
            "sum=500500\n");
  const ImagePtr out = outputOf(stats.op);
  EXPECT_NE(out->getBuffer(), image->getBuffer());
  EXPECT_EQ(pixelsOf<float>(*out), pixels);
  expectSameGeometry(*out, *image);

  Statistics some(makeImage<float>({4}, {1, kNaN, 3, -kInf}));
  EXPECT_EQ(some.op.getStatistics().count, 3u);
  EXPECT_EQ(some.op.getStatistics().min, -kInf);
  EXPECT_EQ(some.op.getStatistics().sum, -kInf);  // IEEE arithmetic, not a NaN from compensation
  EXPECT_EQ(some.op.getStatistics().mean, -kInf);
  EXPECT_TRUE(std::isnan(some.op.getStatistics().stddev));
  Statistics none(makeImage<float>({2}, {kNaN}));
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
      "\nStatisticsOperator: count=3 min=-1 max=1 mean=0 stddev=0.8164965809 sum=0\n. "
      "Computation done in ";
  EXPECT_EQ(capture.take().substr(0, expected.size()), expected);
  stats.setStream(nullptr);
  stats.setToInvalidated();
  stats.update();
  EXPECT_EQ(capture.str().find("count="), std::string::npos) << capture.str();
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
  connectInputs(mask, {&source, &maskSource});
  for (vorn::ProcessObject* op :
       std::vector<vorn::ProcessObject*>{&cast, &smooth, &threshold, &stats, &mask}) {
    if (op != &mask) connectInputs(*op, {&source});
    run(*op);
    EXPECT_EQ(outputOf(*op)->getPixelNumber(), 0u) << op->getName();
    EXPECT_TRUE(outputOf(*op)->getBufferedRegion() == empty->getBufferedRegion()) << op->getName();
  }
  EXPECT_EQ(log.str(), "StatisticsOperator: count=0 min=nan max=nan mean=nan stddev=nan sum=0\n");
}

}  // namespace

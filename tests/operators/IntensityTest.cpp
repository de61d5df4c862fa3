// math, math2, rescale, otsu and labelstats against NumPy and skimage, and the refusal of bad
// parameters by every intensity and geometry operator.
#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "ReferenceSupport.hpp"
#include "vorn/operators/LabelStatistics.hpp"
#include "vorn/operators/OtsuThreshold.hpp"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
const std::vector<float> kA{-2.5f, 0.0f, 0.5f, 3.25f, 7.0f, 100.0f};
const std::vector<float> kB{2.0f, 0.0f, -4.0f, 0.1f, 7.0f, -0.5f};

struct Case {
  const char* name;
  Parameters parameters;
  std::vector<double> expected;
};

// NumPy on float32 arrays: a + np.float32(1.5), np.minimum, np.log, a / b, ...
const Case kMathCases[] = {
    {"math", {{"op", "add"}, {"value", "1.5"}}, {-1, 1.5, 2, 4.75, 8.5, 101.5}},
    {"math", {{"op", "sub"}, {"value", "0.1"}}, {-2.6f, -0.1f, 0.4f, 3.15f, 6.9f, 99.9f}},
    {"math", {{"op", "div"}, {"value", "0"}}, {-kInf, kNaN, kInf, kInf, kInf, kInf}},
    {"math", {{"op", "min"}, {"value", "1"}}, {-2.5, 0, 0.5, 1, 1, 1}},
    {"math", {{"op", "sqrt"}}, {kNaN, 0, 0.70710677f, 1.8027756f, 2.6457512f, 10}},
    {"math", {{"op", "log"}}, {kNaN, -kInf, -0.6931472f, 1.178655f, 1.9459102f, 4.6051702f}},
    {"math", {{"op", "exp"}}, {0.082085006f, 1, 1.6487212f, 25.79034f, 1096.6332f, kInf}},
    {"math", {{"op", "neg"}}, {2.5, -0.0, -0.5, -3.25, -7, -100}},
    {"math", {{"op", "abs"}}, {2.5, 0, 0.5, 3.25, 7, 100}},
    {"math", {{"op", "mul"}, {"value", "3"}, {"type", "uchar"}}, {0, 0, 2, 10, 21, 255}},
    {"math2", {{"op", "sub"}}, {-4.5, 0, 4.5, 3.15f, 0, 100.5}},
    {"math2", {{"op", "mul"}}, {-5, 0, -2, 0.32500002f, 49, -50}},
    {"math2", {{"op", "div"}}, {-1.25, kNaN, -0.125, 32.5, 1, -200}},
    {"math2", {{"op", "max"}, {"type", "short"}}, {2, 0, 1, 3, 7, 100}},
};

TEST(Math, MatchesNumPy) {
  const ImagePtr a = makeImage<float>({6}, kA);
  const ImagePtr b = makeImage<float>({6}, kB);
  for (const Case& c : kMathCases) {
    const bool two = std::string(c.name) == "math2";
    const auto op = runCatalog(c.name, c.parameters,
                               two ? std::vector<ImagePtr>{a, b} : std::vector<ImagePtr>{a});
    expectMatches(valuesOf(*outputOf(*op)), c.expected, describe(c.name, c.parameters));
  }
}

// skimage.exposure.rescale_intensity(r, in_range, out_range) on float32 and uint8 arrays.
TEST(Rescale, MatchesSkimage) {
  const ImagePtr r = makeImage<float>({6}, {-2.5f, 0.0f, 0.5f, 3.25f, 7.0f, 10.0f});
  const Case cases[] = {
      {"rescale", {}, {0, 0.2, 0.24, 0.46, 0.76, 1}},
      {"rescale",
       {{"in_min", "0"}, {"in_max", "5"}, {"out_min", "10"}, {"out_max", "-10"}},
       {10, 10, 8, -3, -10, -10}},
      {"rescale", {{"in_min", "2"}, {"in_max", "2"}}, {1, 1, 1, 1, 1, 1}},
      {"rescale", {{"out_max", "255"}, {"type", "uchar"}}, {0, 51, 61, 117, 194, 255}},
  };
  for (const Case& c : cases) {
    expectMatches(valuesOf(*outputOf(*runCatalog(c.name, c.parameters, {r}))), c.expected,
                  describe(c.name, c.parameters));
  }
  const ImagePtr u = makeImage<unsigned char>({4}, {0, 10, 20, 30});
  expectMatches(valuesOf(*outputOf(*runCatalog("rescale", {}, {u}))),
                {0, 0.33333334f, 0.6666667f, 1}, "rescale of uchar");
}

// Infinities are left out of the default range and clip to its ends; NaN stays.
TEST(Rescale, AndOtsuLeaveInfinitiesOutOfTheRange) {
  const ImagePtr image = makeImage<float>(
      {6},
      {static_cast<float>(-kInf), 0, 5, 10, static_cast<float>(kInf), static_cast<float>(kNaN)});
  expectMatches(valuesOf(*outputOf(*runCatalog("rescale", {}, {image}))), {0, 0, 0.5, 1, 1, kNaN},
                "rescale with infinities");
  EXPECT_EQ(valuesOf(*outputOf(*runCatalog("otsu", {}, {image}))),
            (std::vector<double>{0, 0, 1, 1, 1, 0}));
}

// skimage.filters.threshold_otsu gives 0.99716794 for these values.
TEST(Otsu, MatchesSkimage) {
  const std::vector<float> values{0.1f, 0.3f, 0.2f,  0.25f, 0.15f, 2.0f, 2.4f, 2.2f,
                                  2.1f, 1.0f, 0.05f, 2.6f,  3.1f,  1.7f, 0.4f, 0.35f};
  const auto op = runCatalog("otsu", {}, {makeImage<float>({4, 4}, values)});
  EXPECT_NEAR(static_cast<vorn::OtsuThreshold&>(*op).getThreshold(), 0.99716794, 1e-6);
  EXPECT_EQ(valuesOf(*outputOf(*op)),
            (std::vector<double>{0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0, 0}));
  const auto flat = runCatalog("otsu", {}, {makeImage<short>({3}, {4})});
  EXPECT_EQ(valuesOf(*outputOf(*flat)), (std::vector<double>{0, 0, 0}));
  // Histograms of the halves over the whole range add up to the whole image's threshold, and a
  // given threshold is applied as it is.
  const double min = 0.05f, max = 3.1f;
  std::vector<double> counts = vorn::OtsuThreshold::histogram(
      *makeImage<float>({8}, {values.begin(), values.begin() + 8}), min, max);
  const std::vector<double> rest = vorn::OtsuThreshold::histogram(
      *makeImage<float>({8}, {values.begin() + 8, values.end()}), min, max);
  for (std::size_t bin = 0; bin < counts.size(); ++bin) counts[bin] += rest[bin];
  EXPECT_EQ(vorn::OtsuThreshold::thresholdOf(counts, min, max),
            static_cast<vorn::OtsuThreshold&>(*op).getThreshold());
  // Values outside a given range go to the end bins; no finite value gives 0.
  const std::vector<double> ends =
      vorn::OtsuThreshold::histogram(*makeImage<float>({2}, {0, 5}), 1, 2);
  EXPECT_EQ(ends.front() + ends.back(), 2.0);
  EXPECT_EQ(vorn::OtsuThreshold::thresholdOf(ends, kInf, -kInf), 0.0);
  EXPECT_EQ(valuesOf(*outputOf(
                *runCatalog("otsu", {{"threshold", "2.15"}}, {makeImage<float>({4, 4}, values)}))),
            (std::vector<double>{0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 1, 1, 0, 0, 0}));
}

// NumPy per label: x = v[L == l], x[~isnan(x)], then len, min, max, mean, std, sum, and the
// extent of np.nonzero(L == l).
TEST(LabelStats, MatchesNumPyPerLabel) {
  const ImagePtr values =
      makeImage<float>({4, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, static_cast<float>(kNaN)});
  const ImagePtr labels = makeImage<unsigned char>({4, 3}, {0, 1, 1, 2, 0, 1, 2, 2, 3, 3, 0, 2});
  const auto op = runCatalog("labelstats", {}, {values, labels});
  const auto& stats = static_cast<vorn::LabelStatistics&>(*op).getStatistics();
  ASSERT_EQ(stats.size(), 3u);
  const double expected[3][6] = {{3, 2, 6, 3.6666667, 1.6996732, 11},
                                 {3, 4, 8, 6.3333335, 1.699673, 19},
                                 {2, 9, 10, 9.5, 0.5, 19}};
  const std::vector<long> boxes[3][2] = {{{1, 0}, {2, 2}}, {{2, 0}, {2, 3}}, {{0, 2}, {2, 1}}};
  for (std::size_t l = 0; l < 3; ++l) {
    const vorn::ImageStatistics& s = stats[l].figures;
    EXPECT_EQ(stats[l].label, static_cast<long>(l + 1));
    expectMatches({static_cast<double>(s.count), s.min, s.max, s.mean, s.stddev, s.sum},
                  std::vector<double>(expected[l], expected[l] + 6), "label " + std::to_string(l));
    EXPECT_EQ(stats[l].start, boxes[l][0]);
    EXPECT_EQ(stats[l].size, boxes[l][1]);
  }
  EXPECT_EQ(pixelBytes(*outputOf(*op)), pixelBytes(*values));
}

struct Refusal {
  const char* name;
  Parameters parameters;  // the last one is at fault
  const char* fragment;
};

const Refusal kRefusals[] = {
    {"math", {{"op", "pow"}}, "expected add, sub"},
    {"math", {{"value", ""}}, "op=add of one image needs a number"},
    {"math", {{"op", "abs"}, {"value", "2"}}, "not used by op=abs"},
    {"math", {{"value", "1"}, {"type", "double"}}, "expected uchar, short or float"},
    {"math", {{"value", "1"}, {"threads", "-1"}}, "expected a count"},
    {"math2", {{"op", "sqrt"}}, "takes one image"},
    {"math2", {{"value", "2"}}, "not used by op=add of two images"},
    {"rescale", {{"in_min", "5"}, {"in_max", "1"}}, "below in_min"},
    {"rescale", {{"out_max", "abc"}}, "not a finite number"},
    {"otsu", {{"threads", "x"}}, "expected a count"},
    {"otsu", {{"threshold", "1e999"}}, "not a finite number"},
    {"crop", {{"start", "9"}}, "axis 0 has only 4 pixels"},
    {"crop", {{"size", "0"}}, "expected whole numbers from 1"},
    {"crop", {{"start", "1,2,3,4"}}, "expected 1 value or 3"},
    {"pad", {{"mode", "wrap"}}, "expected constant, edge or reflect"},
    {"pad", {{"before", "2000000"}}, "expected whole numbers from 0 to 1000000"},
    {"pad", {{"value", "nan"}}, "not a finite number"},
    {"flip", {{"axes", "3"}}, "expected axes from 0 to 2"},
    {"flip", {{"axes", "1,1"}}, "axis 1 given twice"},
    {"permute", {{"order", "0,1"}}, "expected every axis from 0 to 2 once"},
    {"resample", {{"spacing", ""}}, "give exactly one of spacing= and size="},
    {"resample", {{"spacing", "1"}, {"size", "2"}}, "give exactly one of spacing= and size="},
    {"resample", {{"spacing", "1,0,1"}}, "not positive"},
    {"resample", {{"size", "2"}, {"order", "2"}}, "expected 0 (nearest)"},
    {"resample", {{"spacing", "1e-9"}}, "gives more than 16777216"},
    {"resample", {{"size", "3,3"}}, "expected 1 value or 3"},
};

// Refused before anything changes: the output was never allocated.
TEST(IntensityAndGeometry, RefuseBadParametersNamingThem) {
  const ImagePtr image = makeImage<float>({4, 3, 2}, {1, 2, 3});
  for (const Refusal& r : kRefusals) {
    const std::string name = r.name;
    const std::vector<ImagePtr> inputs =
        name == "math2" ? std::vector<ImagePtr>{image, image} : std::vector<ImagePtr>{image};
    const auto& [key, value] = r.parameters.back();
    const std::string message =
        "parameter '" + key + "' has invalid value '" + value + "': " + r.fragment;
    expectThrow<std::ios_base::failure>([&] { runCatalog(name, r.parameters, inputs); }, {message});
  }
  // Inputs that do not fit each other.
  const ImagePtr other = makeImage<float>({4, 3, 3}, {1});
  expectThrow<std::ios_base::failure>(
      [&] {
        runCatalog("math2", {}, {image, other});
      },
      {"input 1 is 4x3x3 pixels but input 0 is 4x3x2"});
  expectThrow<std::ios_base::failure>(
      [&] {
        runCatalog("labelstats", {}, {image, image});
      },
      {"labels on input 1 are float, expected uchar or short"});
  ImagePtr flatSpacing = makeImage<float>({4}, {1});
  flatSpacing->setSpacing(0, 0.0);
  expectThrow<std::ios_base::failure>(
      [&] {
        runCatalog("resample", {{"size", "2"}}, {flatSpacing});
      },
      {"spacing on axis 0 is 0.000000, expected a positive number"});
  const ImagePtr flat = makeImage<short>({4, 3}, {1});
  expectThrow<std::ios_base::failure>(
      [&] {
        runCatalog("labelstats", {}, {image, flat});
      },
      {"differ in size"});
}

}  // namespace

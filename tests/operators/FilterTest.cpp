// Gradient magnitude and Laplacian of Gaussian against scipy.ndimage, with the properties
// that catch what a table of numbers misses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NeighbourhoodTestSupport.hpp"

namespace {

void expectNear(const std::vector<double>& actual, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    EXPECT_NEAR(actual[k], expected[k], tolerance) << "pixel " << k;
  }
}

const std::vector<float> kGrid = {0, 7, 3, 10, 6, 2, 9, 3, 10, 6, 2, 9, 5, 1, 6, 2, 9, 40,
                                  1, 8, 4, 9,  5, 1, 8, 4, 0,  7, 1, 8, 4, 0, 7, 3, 10};

std::vector<float> volume() {
  std::vector<float> values;
  for (unsigned k = 0; k < 60; ++k) values.push_back(static_cast<float>(k * 37 % 23));
  return values;
}

// Computed once with scipy.ndimage.gaussian_gradient_magnitude and gaussian_laplace,
// mode='nearest', truncate=4, in float64; scipy orders axes the other way round.
TEST(GaussianDerivatives, MatchReferenceNumbers) {
  const struct {
    std::string op, sigma;
    std::vector<unsigned long> sizes;
    std::vector<double> expected;
  } cases[] = {
      {"gradient", "1.5,0.7", {7, 5}, {1.897417, 1.683427, 1.024011, 0.269961, 0.228938, 0.864337,
                                       1.943880, 2.371573, 2.642959, 3.225083, 3.442914, 2.702756,
                                       1.526985, 1.097031, 1.294927, 1.795051, 1.712504, 0.612335,
                                       2.155193, 2.086816, 1.501227, 1.697744, 2.383465, 3.780154,
                                       4.368982, 3.176462, 0.915384, 1.114176, 2.047784, 1.171385,
                                       0.783334, 0.620254, 0.815313, 1.473859, 1.808052}},
      {"laplace", "1.5,0.7", {7, 5}, {2.026927,  1.195136,  0.622696,   0.374768,  0.333988,
                                      -0.276328, -1.924746, -0.043624,  0.337715,  1.736131,
                                      2.799913,  2.957791,  3.400237,   4.688112,  -0.815939,
                                      -3.807713, -9.956846, -13.208576, -9.528426, -3.636449,
                                      -0.250621, -2.949559, 0.431772,   2.739513,  3.572427,
                                      3.961173,  3.494294,  1.782177,   2.260597,  1.327288,
                                      1.676139,  2.112835,  1.387430,   -0.144176, -1.691076}},
      {"gradient",
       "1",
       {4, 3, 5},
       {3.561055, 2.540865, 1.330346, 1.991332, 3.036252, 1.311543, 1.230252, 1.287031, 3.116609,
        2.009903, 0.676631, 1.679010, 2.797828, 1.691839, 0.582238, 0.708205, 0.918669, 0.882437,
        1.109077, 1.200463, 1.510844, 0.639813, 1.451164, 1.686304, 1.873183, 0.510936, 0.562736,
        0.634557, 1.153834, 1.006997, 0.941848, 0.858934, 0.365075, 0.848898, 1.283196, 1.912050,
        1.039862, 0.777593, 1.232844, 1.755702, 1.125665, 0.990869, 0.500324, 0.670615, 0.587316,
        1.107072, 1.438033, 2.487421, 2.093548, 0.291847, 2.456668, 3.295603, 1.832084, 0.942532,
        0.919911, 3.031166, 2.557195, 1.466744, 2.064891, 3.373847}},
      // Axis 2's radius of 8 reaches far beyond its 5 pixels.
      {"laplace",
       "1,0.6,2",
       {4, 3, 5},
       {2.972869,  -2.085114, -1.232445, -3.490818, 1.688343,  2.024224,  -2.325948, 1.119616,
        -6.440619, -0.986995, 3.361260,  -0.328518, 0.844824,  -2.390641, -0.825089, -1.138413,
        1.006461,  -0.170310, -4.118757, -1.715765, -3.808852, -0.170676, 3.244120,  0.861262,
        -0.827560, -2.640829, -0.235310, 1.073389,  -0.030192, -2.116457, -5.431493, -3.261016,
        -1.390332, 0.640735,  3.046254,  0.510617,  -1.170149, -2.944123, 0.388056,  3.306672,
        -1.861146, -3.384385, -6.212739, -3.620421, 0.829527,  1.125087,  2.608022,  -1.347005,
        -0.159048, -3.412995, 0.807696,  5.666516,  -4.387317, -3.883368, -6.687359, -3.640917,
        3.003251,  1.180709,  1.905815,  -3.746973}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.op + " sigma " + c.sigma);
    const ImagePtr image = makeImage<float>(c.sizes, c.sizes.size() == 2 ? kGrid : volume());
    const ImagePtr out = runNamed(c.op, image, {{"sigma", c.sigma}});
    EXPECT_EQ(out->getPointType(), vorn::PixelType::FLOAT);
    expectSameGeometry(*out, *image);
    expectNear(valuesOf(*out), c.expected, 2e-4);
  }
}

TEST(GaussianDerivatives, RegionOfInterestAndThreadsKeepTheBits) {
  const ImagePtr image = makeImage({13, 11, 9}, randomValues<short>(13 * 11 * 9, 4, -300, 300));
  for (const std::string op : {"gradient", "laplace", "gaussian"}) {
    expectRegionAndThreadsKeepTheBits(op, image, {{"sigma", "1.2,2,0.8"}});
  }
}

// A ramp's derivative is its slope away from the edges (up to the sampling of the kernel).
TEST(GaussianDerivatives, RampHasItsSlope) {
  std::vector<unsigned char> ramp;
  for (unsigned k = 0; k < 40; ++k) ramp.push_back(static_cast<unsigned char>(3 * (k % 20)));
  const std::vector<double> slope = valuesOf(*runNamed("gradient", makeImage({20, 2}, ramp), {}));
  for (unsigned x = 5; x < 15; ++x) EXPECT_NEAR(slope[x], 3.0, 1e-3);
}

// A 7 x 6 image; scipy holds it as shape (6, 7).
const std::vector<unsigned char> kGrey = {0,  37, 74,  10, 47, 84, 20, 57, 94, 30, 67, 3,  40, 77,
                                          13, 50, 87,  23, 60, 97, 33, 70, 6,  43, 80, 16, 53, 90,
                                          26, 63, 100, 36, 73, 9,  46, 83, 19, 56, 93, 29, 66, 2};

// Computed once with scipy.ndimage.median_filter(x, size, mode='nearest').
TEST(MedianFilter, MatchesReferenceNumbers) {
  std::vector<short> signedGrey;
  for (unsigned char v : kGrey) signedGrey.push_back(static_cast<short>((v - 50) * 7));
  std::vector<float> volumeValues = volume();
  for (float& v : volumeValues) v -= 11.5f;
  const struct {
    std::string size;
    ImagePtr image;
    std::vector<double> expected;
  } cases[] = {
      {"3", makeImage({7, 6}, kGrey), {37, 37, 37, 47, 47, 47, 40, 37, 50, 50, 47, 47, 47, 40,
                                       57, 50, 50, 43, 53, 53, 77, 26, 50, 50, 60, 53, 53, 46,
                                       63, 56, 56, 56, 53, 46, 46, 63, 56, 56, 56, 66, 29, 9}},
      {"5,3", makeImage({7, 6}, kGrey), {37, 37, 37, 47, 47, 40, 40, 37, 37, 47, 50, 47, 40, 40,
                                         57, 57, 50, 50, 53, 60, 60, 43, 43, 50, 53, 53, 46, 46,
                                         63, 63, 56, 53, 53, 46, 46, 63, 63, 56, 56, 56, 36, 29}},
      {"1,5",
       makeImage({7, 6}, signedGrey),
       {-350, -91,  168, -280, -21,  238, -210, -259, -91,  168, -189, -21,  238, -119,
        -168, 0,    168, -98,  -21,  21,  -28,  49,   0,    42,  119,  -147, 21,  -28,
        140,  -217, 42,  210,  -147, 112, -119, 231,  -217, 42,  301,  -147, 112, -336}},
      {"3",
       makeImage({4, 3, 5}, volumeValues),
       {-4.5, -1.5, 1.5,  0.5,  -1.5, -1.5, -0.5, 0.5,  -0.5, -0.5, -0.5, -2.5, -3.5, 0.5,  0.5,
        0.5,  -1.5, -0.5, -0.5, -1.5, -0.5, -0.5, -2.5, -2.5, 2.5,  0.5,  0.5,  0.5,  -0.5, 0.5,
        0.5,  -1.5, -0.5, -2.5, -2.5, -2.5, 2.5,  0.5,  -0.5, -1.5, -0.5, -0.5, -0.5, -0.5, -0.5,
        -2.5, -0.5, 1.5,  0.5,  0.5,  -0.5, -1.5, 0.5,  -1.5, -0.5, -0.5, -2.5, -2.5, 1.5,  2.5}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("size " + c.size);
    const ImagePtr out = runNamed("median", c.image, {{"size", c.size}});
    EXPECT_EQ(out->getPointType(), c.image->getPointType());
    expectSameGeometry(*out, *c.image);
    EXPECT_EQ(valuesOf(*out), c.expected);
  }
}

// Windows far wider than the image, and float rows in more slabs than one.
TEST(MedianFilter, RegionOfInterestAndThreadsKeepTheBits) {
  expectRegionAndThreadsKeepTheBits(
      "median", makeImage({13, 11, 9}, randomValues<float>(13 * 11 * 9, 2, -9, 9)),
      {{"size", "5,3,31"}});
  expectRegionAndThreadsKeepTheBits(
      "median", makeImage({13, 11, 9}, randomValues<short>(13 * 11 * 9, 2, -30000, 30000)),
      {{"size", "3"}});
  const ImagePtr big = makeImage({64, 64, 40}, randomValues<float>(64 * 64 * 40, 3, -50, 50));
  EXPECT_EQ(pixelBytes(*runNamed("median", big, {{"threads", "1"}})),
            pixelBytes(*runNamed("median", big, {{"threads", "4"}})));
}

TEST(NeighbourhoodFilters, RefuseBadParameters) {
  const ImagePtr image = makeImage<float>({5, 4}, kGrid);
  for (const std::string op : {"gradient", "laplace"}) {
    for (const std::string sigma : {"0", "-1", "1,2,3", "2e6", "a"}) {
      expectRefusal(op, image, {{"sigma", sigma}});
    }
    expectRefusal(op, image, {{"threads", "many"}});
  }
  for (const std::string size : {"2", "0", "1.5", "3,3,3", "-3", "x", "65537", "1,2147483647"}) {
    expectRefusal("median", image, {{"size", size}});
  }
}

}  // namespace

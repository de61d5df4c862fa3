// Erosion, dilation, opening and closing against scipy.ndimage, with the properties that
// catch what a table of numbers misses.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "NeighbourhoodTestSupport.hpp"

namespace {

// A 7 x 6 image; scipy holds it as shape (6, 7), axes the other way round.
const std::vector<unsigned char> kGrey = {0,  37, 74,  10, 47, 84, 20, 57, 94, 30, 67, 3,  40, 77,
                                          13, 50, 87,  23, 60, 97, 33, 70, 6,  43, 80, 16, 53, 90,
                                          26, 63, 100, 36, 73, 9,  46, 83, 19, 56, 93, 29, 66, 2};

std::vector<short> signedGrey() {
  std::vector<short> values;
  for (unsigned char v : kGrey) values.push_back(static_cast<short>((v - 50) * 7));
  return values;
}

// Computed once with scipy.ndimage.grey_erosion (dilation, opening, closing) with
// mode='nearest' and the footprint x^2/rx^2 + y^2/ry^2 <= 1 for a ball, ones for a box.
TEST(Morphology, MatchesReferenceNumbers) {
  const struct {
    std::string op;
    Parameters parameters;
    bool signedPixels;
    std::vector<double> expected;
  } cases[] = {
      {"erode", {{"radius", "1"}}, false, {0,  0, 10, 10, 3, 20, 20, 0,  30, 30, 3,  3,  3, 20,
                                           13, 6, 23, 23, 3, 33, 33, 6,  6,  6,  16, 16, 9, 33,
                                           26, 6, 36, 36, 9, 9,  2,  19, 19, 19, 29, 29, 2, 2}},
      {"dilate", {{"radius", "2,1"}}, false, {74, 94,  74, 84, 84,  84, 84,  94,  94,  94,  94,
                                              77, 97,  77, 87, 94,  87, 97,  97,  97,  97,  70,
                                              80, 100, 80, 90, 97,  90, 100, 100, 100, 100, 100,
                                              73, 90,  83, 93, 100, 93, 93,  93,  66}},
      {"open", {{"radius", "2"}}, false, {0,  6,  6,  3,  20, 20, 20, 6,  6,  6,  6,  3,  20, 20,
                                          6,  6,  6,  9,  20, 20, 20, 19, 6,  19, 19, 9,  20, 20,
                                          19, 19, 19, 19, 19, 9,  20, 19, 19, 19, 19, 19, 19, 2}},
      {"close",
       {{"radius", "1,2"}, {"shape", "box"}},
       false,
       {94, 94, 87, 87, 87, 97, 97, 94, 94, 87,  87, 87, 97, 97, 83, 83, 87,  87, 87, 97, 97,
        83, 83, 87, 87, 87, 90, 90, 83, 83, 100, 93, 90, 90, 90, 83, 83, 100, 93, 90, 90, 90}},
      {"erode",
       {{"radius", "2"}, {"shape", "box"}},
       true,
       {-350, -350, -350, -329, -329, -329, -329, -350, -350, -350, -329, -329, -329, -329,
        -350, -350, -350, -329, -329, -329, -329, -308, -308, -329, -329, -336, -336, -336,
        -308, -308, -308, -308, -336, -336, -336, -308, -308, -308, -308, -336, -336, -336}},
      // A ball of radius 1.5 takes the diagonals in: the 3 x 3 box.
      {"close", {{"radius", "1.5"}}, true, {308, 308, 168, 168, 168, 238, 238, 308, 308, 168, 168,
                                            168, 238, 238, 140, 140, 259, 259, 259, 329, 329, 140,
                                            140, 259, 259, 259, 280, 280, 140, 140, 350, 301, 161,
                                            112, 112, 231, 231, 350, 301, 161, 112, 112}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.op + " " + c.parameters.front().second);
    const ImagePtr image =
        c.signedPixels ? makeImage({7, 6}, signedGrey()) : makeImage({7, 6}, kGrey);
    const ImagePtr out = runNamed(c.op, image, c.parameters);
    EXPECT_EQ(out->getPointType(), image->getPointType());
    expectSameGeometry(*out, *image);
    EXPECT_EQ(valuesOf(*out), c.expected);
  }
}

TEST(Morphology, RegionOfInterestAndThreadsKeepTheBits) {
  const ImagePtr image = makeImage({13, 11, 9}, randomValues<float>(13 * 11 * 9, 5, -50, 50));
  for (const std::string op : {"erode", "dilate", "open", "close"}) {
    expectRegionAndThreadsKeepTheBits(op, image, {{"radius", "4,1,3"}});
    expectRegionAndThreadsKeepTheBits(op, image, {{"radius", "2"}});
    expectRegionAndThreadsKeepTheBits(op, image, {{"radius", "4,2,0"}, {"shape", "box"}});
  }
}

// Opening and closing are idempotent, and a ball too big for the image reaches every pixel.
TEST(Morphology, OpeningAndClosingAreIdempotent) {
  const ImagePtr image = makeImage({12, 10, 7}, randomValues<short>(12 * 10 * 7, 9, -99, 99));
  for (const std::string op : {"open", "close"}) {
    for (const Parameters& p : {Parameters{{"radius", "2"}}, Parameters{{"radius", "1,3,1"}},
                                Parameters{{"radius", "2"}, {"shape", "box"}}}) {
      SCOPED_TRACE(op + " " + p.front().second);
      const ImagePtr once = runNamed(op, image, p);
      EXPECT_EQ(pixelBytes(*once), pixelBytes(*runNamed(op, once, p)));
    }
  }
  const std::vector<double> eroded = valuesOf(*runNamed("erode", image, {{"radius", "100"}}));
  const std::vector<double> all = valuesOf(*image);
  EXPECT_EQ(eroded, std::vector<double>(all.size(), *std::min_element(all.begin(), all.end())));
}

// An 8 x 6 mask; scipy holds it as shape (6, 8).
const std::vector<unsigned char> kMask = {1, 1, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 0, 0, 1, 0,
                                          0, 0, 0, 1, 1, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 1,
                                          1, 0, 0, 0, 0, 0, 0, 1, 0, 1, 1, 0, 1, 1, 0, 1};

// A 7 x 6 mask with a hole of 3 pixels, another of 1, and a bay open to the border.
const std::vector<unsigned char> kHoles = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 0,
                                           0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 1, 1, 0, 1,
                                           0, 1, 1, 1, 0, 1, 0, 1, 0, 0, 1, 1, 1, 0};

const std::vector<unsigned char> kBay = {1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1,
                                         1, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 0, 1, 1,
                                         1, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 0, 1, 1};

std::vector<double> labelsOf(const std::vector<unsigned char>& mask, std::vector<double> keep) {
  std::vector<double> face = {1, 1, 0, 0, 0, 2, 0, 3, 0, 1, 0, 4, 0,  0,  5, 0,
                              0, 0, 0, 4, 4, 0, 0, 0, 6, 0, 7, 0, 4,  0,  8, 8,
                              6, 0, 0, 0, 0, 0, 0, 8, 0, 9, 9, 0, 10, 10, 0, 8};
  for (std::size_t k = 0; k < face.size(); ++k) {
    face[k] = mask[k] && std::count(keep.begin(), keep.end(), face[k]) ? 1 : 0;
  }
  return face;
}

// Computed once with scipy.ndimage.label (full: generate_binary_structure(2, 2)),
// binary_fill_holes and distance_transform_edt(sampling=spacing, axes reversed).
TEST(Components, MatchReferenceNumbers) {
  const struct {
    std::string op;
    Parameters parameters;
    std::vector<unsigned char> mask;
    std::vector<double> expected;
  } cases[] = {
      {"label", {{"connectivity", "face"}}, kMask, {1, 1, 0, 0, 0, 2, 0, 3, 0,  1,  0, 4,
                                                    0, 0, 5, 0, 0, 0, 0, 4, 4,  0,  0, 0,
                                                    6, 0, 7, 0, 4, 0, 8, 8, 6,  0,  0, 0,
                                                    0, 0, 0, 8, 0, 9, 9, 0, 10, 10, 0, 8}},
      {"label", {{"connectivity", "full"}}, kMask, {1, 1, 0, 0, 0, 2, 0, 2, 0, 1, 0, 3,
                                                    0, 0, 2, 0, 0, 0, 0, 3, 3, 0, 0, 0,
                                                    4, 0, 3, 0, 3, 0, 5, 5, 4, 0, 0, 0,
                                                    0, 0, 0, 5, 0, 4, 4, 0, 6, 6, 0, 5}},
      // Components 4 and 8 have 4 pixels each, 1 has 3.
      {"largest", {{"count", "1"}}, kMask, labelsOf(kMask, {4})},
      {"largest", {{"count", "3"}}, kMask, labelsOf(kMask, {1, 4, 8})},
      {"largest", {{"count", "11"}}, kMask, labelsOf(kMask, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10})},
      {"fill", {{"threads", "1"}}, kHoles, {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 0,
                                            0, 1, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 1, 1,
                                            0, 1, 1, 1, 1, 1, 0, 1, 0, 0, 1, 1, 1, 0}},
      // A hole of 2 pixels, and a bay that reaches only the last row.
      {"fill", {}, kBay, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1,
                          1, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 0, 1, 1}},
      {"distance", {{"threads", "1"}}, kHoles, {0,   0,   0,   0,   0,   0,   0, 0,   0.5, 1,   1.5,
                                                1,   0.5, 0,   0,   0.5, 0,   0, 0.5, 0.5, 0,   0,
                                                0.5, 0,   0.5, 0.5, 0,   0.5, 0, 0.5, 1,   0.5, 0,
                                                0.5, 0,   0.5, 0,   0,   0.5, 1, 0.5, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.op + " " + (c.parameters.empty() ? "" : c.parameters.front().second));
    const ImagePtr image = makeImage({c.mask.size() == 48 ? 8ul : 7ul, 6}, c.mask);
    const ImagePtr out = runNamed(c.op, image, c.parameters);
    const bool mask = c.op == "largest" || c.op == "fill";
    EXPECT_EQ(out->getPointType(), mask ? vorn::PixelType::UCHAR : vorn::PixelType::FLOAT);
    expectSameGeometry(*out, *image);
    EXPECT_EQ(valuesOf(*out), c.expected);
  }
  // Spacing 0.5, 1.5 and 2.5 along the axes.
  std::vector<short> volume;
  for (short k = 0; k < 60; ++k) volume.push_back(k * 7 % 5 != 0 ? -3 : 0);
  const std::vector<double> slice = {0, 0.5, 1,   1.5, 0.5, 0, 0.5,      1,        1,        0.5,
                                     0, 0.5, 1.5, 1,   0.5, 0, 2.121320, 1.802776, 1.581139, 1.5};
  const std::vector<double> distances =
      valuesOf(*runNamed("distance", makeImage({4, 5, 3}, volume), {}));
  for (std::size_t k = 0; k < distances.size(); ++k) EXPECT_NEAR(distances[k], slice[k % 20], 1e-6);
}

// Cubes of 2 x 2 x 2 along the diagonal of a volume touch at their corners only, and the
// parallel slabs must join every component they cut.
TEST(Components, CountThePartsOfAKnownPhantom) {
  const unsigned long n = 64;  // slabs of 16 layers
  std::vector<unsigned char> cubes(n * n * n, 0);
  for (unsigned long i = 0; i < n; ++i) {
    for (unsigned long j = i / 2 * 2; j < i / 2 * 2 + 2; ++j) {
      for (unsigned long k = i / 2 * 2; k < i / 2 * 2 + 2; ++k) cubes[i + n * (j + n * k)] = 1;
    }
  }
  const ImagePtr image = makeImage({n, n, n}, cubes);
  const auto most = [](const ImagePtr& out) {
    const std::vector<double> v = valuesOf(*out);
    return *std::max_element(v.begin(), v.end());
  };
  EXPECT_EQ(most(runNamed("label", image, {})), 32.0);
  EXPECT_EQ(most(runNamed("label", image, {{"connectivity", "full"}, {"threads", "3"}})), 1.0);
  // A hollow box filled is solid; its shell's distance map is 0 on the zeros, >= 0.5 inside.
  std::vector<unsigned char> shell(n * n * n, 0);
  for (unsigned long p = 0; p < shell.size(); ++p) {
    const unsigned long x = p % n, y = p / n % n, z = p / (n * n);
    const auto edge = [](unsigned long i) { return i == 5 || i == 54; };
    const auto within = [](unsigned long i) { return i >= 5 && i <= 54; };
    shell[p] = within(x) && within(y) && within(z) && (edge(x) || edge(y) || edge(z));
  }
  const std::vector<double> filled = valuesOf(*runNamed("fill", makeImage({n, n, n}, shell), {}));
  EXPECT_EQ(std::count(filled.begin(), filled.end(), 1.0), 50 * 50 * 50);
  const std::vector<double> distance =
      valuesOf(*runNamed("distance", makeImage({n, n, n}, shell), {}));
  for (std::size_t p = 0; p < shell.size(); ++p) {
    if (shell[p]) {
      EXPECT_GE(distance[p], 0.5);
    } else {
      ASSERT_EQ(distance[p], 0.0);
    }
  }
}

TEST(Components, ThreadsKeepTheBitsAndNoZeroIsInfinitelyFar) {
  const ImagePtr image = makeImage({64, 40, 50}, randomValues<float>(64 * 40 * 50, 8, 0, 2));
  for (const std::string op : {"label", "largest", "fill", "distance"}) {
    SCOPED_TRACE(op);
    EXPECT_EQ(pixelBytes(*runNamed(op, image, {{"threads", "1"}})),
              pixelBytes(*runNamed(op, image, {{"threads", "4"}})));
  }
  for (double d : valuesOf(*runNamed("distance", makeImage<float>({4, 3}, {2}), {}))) {
    EXPECT_EQ(d, std::numeric_limits<double>::infinity());
  }
}

TEST(Morphology, RefusesBadParameters) {
  const ImagePtr image = makeImage({5, 4}, kGrey);
  for (const std::string op : {"erode", "open"}) {
    for (const Parameters& p : {Parameters{{"radius", "-1"}}, Parameters{{"radius", "1,2,3"}},
                                Parameters{{"radius", "x"}}, Parameters{{"radius", "2e6"}},
                                Parameters{{"shape", "disc"}}, Parameters{{"threads", "-2"}}}) {
      expectRefusal(op, image, p);
    }
  }
  for (const std::string op : {"label", "largest"}) {
    expectRefusal(op, image, {{"connectivity", "corner"}});
  }
  for (const std::string count : {"0", "1.5", "-2", "x"}) {
    expectRefusal("largest", image, {{"count", count}});
  }
  expectRefusal("distance", image, {{"threads", "2000"}});
}

}  // namespace

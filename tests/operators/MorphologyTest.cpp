// Erosion, dilation, opening and closing against scipy.ndimage, with the properties that
// catch what a table of numbers misses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NeighbourhoodTestSupport.hpp"

namespace {

// A 7 x 6 image; scipy holds it as shape (6, 7), axes the other way round.
const std::vector<unsigned char> kGrey = {
    0,  37, 74, 10, 47, 84, 20,  57, 94, 30, 67, 3,  40, 77, 13, 50, 87, 23, 60, 97, 33,
    70, 6,  43, 80, 16, 53, 90, 26, 63, 100, 36, 73, 9, 46, 83, 19, 56, 93, 29, 66, 2};

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
      {"erode", {{"radius", "1"}}, false,
       {0,  0,  10, 10, 3, 20, 20, 0, 30, 30, 3,  3, 3, 20, 13, 6,  23, 23, 3, 33, 33,
        6,  6,  6,  16, 16, 9, 33, 26, 6, 36, 36, 9, 9, 2,  19, 19, 19, 29, 29, 2,  2}},
      {"dilate", {{"radius", "2,1"}}, false,
       {74, 94, 74, 84, 84, 84, 84, 94, 94, 94, 94, 77, 97, 77, 87, 94, 87, 97, 97, 97, 97,
        70, 80, 100, 80, 90, 97, 90, 100, 100, 100, 100, 100, 73, 90, 83, 93, 100, 93, 93, 93, 66}},
      {"open", {{"radius", "2"}}, false,
       {0,  6,  6,  3,  20, 20, 20, 6,  6,  6,  6,  3,  20, 20, 6,  6,  6,  9,  20, 20, 20,
        19, 6,  19, 19, 9,  20, 20, 19, 19, 19, 19, 19, 9,  20, 19, 19, 19, 19, 19, 19, 2}},
      {"close", {{"radius", "1,2"}, {"shape", "box"}}, false,
       {94, 94, 87, 87, 87, 97, 97, 94, 94, 87, 87, 87, 97, 97, 83, 83, 87, 87, 87, 97, 97,
        83, 83, 87, 87, 87, 90, 90, 83, 83, 100, 93, 90, 90, 90, 83, 83, 100, 93, 90, 90, 90}},
      {"erode", {{"radius", "2"}, {"shape", "box"}}, true,
       {-350, -350, -350, -329, -329, -329, -329, -350, -350, -350, -329, -329, -329, -329,
        -350, -350, -350, -329, -329, -329, -329, -308, -308, -329, -329, -336, -336, -336,
        -308, -308, -308, -308, -336, -336, -336, -308, -308, -308, -308, -336, -336, -336}},
      // A ball of radius 1.5 takes the diagonals in: the 3 x 3 box.
      {"close", {{"radius", "1.5"}}, true,
       {308, 308, 168, 168, 168, 238, 238, 308, 308, 168, 168, 168, 238, 238,
        140, 140, 259, 259, 259, 329, 329, 140, 140, 259, 259, 259, 280, 280,
        140, 140, 350, 301, 161, 112, 112, 231, 231, 350, 301, 161, 112, 112}},
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
    expectRegionAndThreadsKeepTheBits(op, image, {{"radius", "2,1,3"}});
    expectRegionAndThreadsKeepTheBits(op, image, {{"radius", "1,2,0"}, {"shape", "box"}});
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

TEST(Morphology, RefusesBadParameters) {
  const ImagePtr image = makeImage({5, 4}, kGrey);
  for (const std::string op : {"erode", "open"}) {
    for (const Parameters& p :
         {Parameters{{"radius", "-1"}}, Parameters{{"radius", "1,2,3"}},
          Parameters{{"radius", "x"}}, Parameters{{"radius", "2e6"}},
          Parameters{{"shape", "disc"}}, Parameters{{"threads", "-2"}}}) {
      expectRefusal(op, image, p);
    }
  }
}

}  // namespace

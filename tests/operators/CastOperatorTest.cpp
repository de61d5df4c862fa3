#include "vorn/operators/CastOperator.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <ios>
#include <limits>
#include <string>
#include <vector>

#include "ImageSourceOperator.hpp"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// Runs a cast of `image` to `type` through a source and returns the output.
ImagePtr castTo(const ImagePtr& image, const std::string& type) {
  ImageSource source(image);
  vorn::CastOperator cast;
  connectInputs(cast, {&source});
  cast.setParameterValue("type", type);
  run(cast);
  return outputOf(cast);
}

const std::vector<float> kAwkwardFloats = {-1.5f, -0.5f, 0.5f,  2.5f,  300.7f, -40000.0f,
                                           kNaN,  kInf,  -kInf, 2.49f, -0.0f,  32767.5f};

TEST(CastOperator, FloatToUcharRoundsHalfAwayFromZeroAndClamps) {
  const ImagePtr out = castTo(makeImage<float>({12}, kAwkwardFloats), "uchar");
  ASSERT_EQ(out->getPointType(), vorn::PixelType::UCHAR);
  const std::vector<unsigned char> expected = {0, 0, 1, 3, 255, 0, 0, 255, 0, 2, 0, 255};
  EXPECT_EQ(pixelsOf<unsigned char>(*out), expected);
}

TEST(CastOperator, FloatToShortRoundsHalfAwayFromZeroAndClamps) {
  const ImagePtr out = castTo(makeImage<float>({12}, kAwkwardFloats), "short");
  ASSERT_EQ(out->getPointType(), vorn::PixelType::SHORT);
  const std::vector<short> expected = {-2, -1, 1, 3, 301, -32768, 0, 32767, -32768, 2, 0, 32767};
  EXPECT_EQ(pixelsOf<short>(*out), expected);
}

TEST(CastOperator, ShortToUcharClampsAndUcharToShortIsExact) {
  const ImagePtr shorts = makeImage<short>({6}, {-5, 0, 255, 256, 32767, -32768});
  EXPECT_EQ(pixelsOf<unsigned char>(*castTo(shorts, "uchar")),
            (std::vector<unsigned char>{0, 0, 255, 255, 255, 0}));
  const ImagePtr bytes = makeImage<unsigned char>({3}, {0, 128, 255});
  EXPECT_EQ(pixelsOf<short>(*castTo(bytes, "short")), (std::vector<short>{0, 128, 255}));
}

TEST(CastOperator, ToFloatIsExact) {
  const ImagePtr bytes = makeImage<unsigned char>({4}, {0, 1, 128, 255});
  EXPECT_EQ(pixelsOf<float>(*castTo(bytes, "float")), (std::vector<float>{0, 1, 128, 255}));
  const ImagePtr shorts = makeImage<short>({3}, {-32768, -1, 32767});
  EXPECT_EQ(pixelsOf<float>(*castTo(shorts, "float")), (std::vector<float>{-32768, -1, 32767}));
  const std::vector<float> floats =
      pixelsOf<float>(*castTo(makeImage<float>({3}, {0.1f, -kInf, kNaN}), "float"));
  ASSERT_EQ(floats.size(), 3u);
  EXPECT_EQ(floats[0], 0.1f);
  EXPECT_EQ(floats[1], -kInf);
  EXPECT_TRUE(std::isnan(floats[2]));
}

TEST(CastOperator, KeepsBoxSpacingAndOriginAndLeavesInputAlone) {
  const ImagePtr image = makeImage<float>({2, 3}, {1.4f, 2, 3, 4, 5, -6.6f});
  vorn::Box box = image->getBufferedRegion();
  image->setSpacing(0, 0.5);
  image->setSpacing(1, 2.5);
  image->setOrigin(0, -10);
  image->setOrigin(1, 7);
  const ImagePtr out = castTo(image, "short");
  EXPECT_TRUE(out->getBufferedRegion() == box);
  EXPECT_EQ(out->getSpacing(0), 0.5);
  EXPECT_EQ(out->getSpacing(1), 2.5);
  EXPECT_EQ(out->getOrigin(0), -10);
  EXPECT_EQ(out->getOrigin(1), 7);
  EXPECT_EQ(pixelsOf<short>(*out), (std::vector<short>{1, 2, 3, 4, 5, -7}));
}

TEST(CastOperator, UnknownTypeFailsNamingItAndKeepsThePreviousOutput) {
  ImageSource source(makeImage<short>({2}, {7, -7}));
  vorn::CastOperator cast;
  EXPECT_EQ(cast.getName(), "CastOperator");
  connectInputs(cast, {&source});
  run(cast);  // the default type is float
  for (const std::string bad : {"double", "", "Float", "uchar "}) {
    cast.setParameterValue("type", bad);
    try {
      run(cast);
      ADD_FAILURE() << "type '" << bad << "' was accepted";
    } catch (const std::ios_base::failure& e) {
      const std::string what = e.what();
      EXPECT_NE(what.find("CastOperator"), std::string::npos) << what;
      EXPECT_NE(what.find("'type'"), std::string::npos) << what;
      EXPECT_NE(what.find("'" + bad + "'"), std::string::npos) << what;
    }
    EXPECT_EQ(pixelsOf<float>(*outputOf(cast)), (std::vector<float>{7, -7}));
  }
}

}  // namespace

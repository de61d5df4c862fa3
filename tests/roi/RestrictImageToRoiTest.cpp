#include "vorn/RestrictImageToRoi.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"

namespace {

using vorn::ImageObject;
using vorn::PixelType;
using ImagePtr = boost::shared_ptr<ImageObject>;

template <class T>
ImagePtr imageOf(PixelType::Type type, const std::vector<T>& pixels) {
  ImagePtr image(new ImageObject);
  vorn::Box box(1);
  box.m_size[0] = pixels.size();
  image->Allocate(type, box);
  if (!pixels.empty()) std::memcpy(image->getBuffer(), pixels.data(), pixels.size() * sizeof(T));
  return image;
}

ImagePtr maskOf(const std::vector<unsigned char>& inside) {
  return imageOf(PixelType::UCHAR, inside);
}

template <class T>
std::vector<T> pixelsOf(const ImagePtr& image) {
  const T* first = static_cast<const T*>(image->getBuffer());
  return std::vector<T>(first, first + image->getPixelNumber());
}

// Tests the three pixel types on small images: outside becomes zero, inside is kept.
TEST(RestrictImageToRoi, ZeroesOutsideTheMask) {
  ImagePtr shorts = imageOf<short>(PixelType::SHORT, {5, -3, 7, 9});
  vorn::restrictImageToRoi(shorts, maskOf({1, 0, 255, 0}));
  EXPECT_EQ((std::vector<short>{5, 0, 7, 0}), pixelsOf<short>(shorts));

  ImagePtr bytes = imageOf<unsigned char>(PixelType::UCHAR, {1, 2, 3});
  vorn::restrictImageToRoi(bytes, maskOf({9, 9, 9}));
  EXPECT_EQ((std::vector<unsigned char>{1, 2, 3}), pixelsOf<unsigned char>(bytes));
  vorn::restrictImageToRoi(bytes, maskOf({0, 0, 0}));
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0}), pixelsOf<unsigned char>(bytes));
}

// Tests that float pixels outside become +0.0 and pixels inside keep every bit.
TEST(RestrictImageToRoi, FloatsKeepTheirBits) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ImagePtr floats = imageOf<float>(PixelType::FLOAT, {-1.5f, 2.0f, -0.0f, nan, -7.0f});
  std::uint32_t nanBits;
  std::memcpy(&nanBits, &pixelsOf<float>(floats)[3], 4);
  vorn::restrictImageToRoi(floats, maskOf({0, 7, 1, 1, 0}));
  const std::vector<float> result = pixelsOf<float>(floats);
  EXPECT_EQ(0.0f, result[0]);
  EXPECT_FALSE(std::signbit(result[0]));  // +0.0, not -0.0
  EXPECT_EQ(2.0f, result[1]);
  EXPECT_TRUE(std::signbit(result[2]));  // -0.0 inside stays -0.0
  std::uint32_t keptBits;
  std::memcpy(&keptBits, &result[3], 4);
  EXPECT_EQ(nanBits, keptBits);
  EXPECT_FALSE(std::signbit(result[4]));
}

// Tests the vectorised loop against the plain rule on lengths that leave every kind of tail.
TEST(RestrictImageToRoi, MergeBufferMatchesTheRuleOnLongBuffers) {
  for (unsigned long count : {0ul, 1ul, 15ul, 16ul, 17ul, 1000ul, 4099ul}) {
    std::vector<unsigned char> mask(count);
    std::vector<short> shorts(count), expectedShorts(count);
    std::vector<float> floats(count), expectedFloats(count);
    std::vector<unsigned char> bytes(count), expectedBytes(count);
    for (unsigned long k = 0; k < count; ++k) {
      mask[k] = static_cast<unsigned char>((k * 37) % 5 == 0 ? 0 : k * 13);
      shorts[k] = static_cast<short>(k * 7919 - 30000);
      floats[k] = static_cast<float>(k) * -0.25f;
      bytes[k] = static_cast<unsigned char>(k * 31 + 1);
      expectedShorts[k] = mask[k] ? shorts[k] : 0;
      expectedFloats[k] = mask[k] ? floats[k] : 0.0f;
      expectedBytes[k] = mask[k] ? bytes[k] : 0;
    }
    vorn::mergeBuffer<short, unsigned char>(shorts.data(), mask.data(), count);
    vorn::mergeBuffer<float, unsigned char>(floats.data(), mask.data(), count);
    vorn::mergeBuffer<unsigned char, unsigned char>(bytes.data(), mask.data(), count);
    EXPECT_EQ(expectedShorts, shorts) << count;
    EXPECT_EQ(expectedFloats, floats) << count;
    EXPECT_EQ(expectedBytes, bytes) << count;
  }
}

// Tests what is refused: an unknown pixel type (open line, exact text), and the cases that would
// read or write out of bounds; an empty image writes nothing.
TEST(RestrictImageToRoi, RefusalsChangeNothing) {
  CoutCapture out;
  ImagePtr unknown(new ImageObject);
  vorn::Box box(1);
  box.m_size[0] = 2;
  unknown->Allocate(PixelType::UNKNOWN, box);
  vorn::restrictImageToRoi(unknown, maskOf({0, 0}));
  EXPECT_EQ("ERROR restrictImageToRoi :  UNSUPPORTED PIXEL TYPE !!!", out.take());

  vorn::restrictImageToRoi(imageOf<short>(PixelType::SHORT, {}), ImagePtr());
  EXPECT_EQ("", out.take());

  ImagePtr shorts = imageOf<short>(PixelType::SHORT, {4, 5, 6});
  vorn::restrictImageToRoi(shorts, maskOf({0, 0}));
  vorn::restrictImageToRoi(shorts, ImagePtr());
  vorn::restrictImageToRoi(ImagePtr(), maskOf({0}));
  EXPECT_EQ(
      "ERROR restrictImageToRoi : mask smaller than image\n"
      "ERROR restrictImageToRoi : no mask image\n"
      "ERROR restrictImageToRoi : no image\n",
      out.take());
  EXPECT_EQ((std::vector<short>{4, 5, 6}), pixelsOf<short>(shorts));
}

}  // namespace

#include "vorn/RestrictImageToRoi.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"

namespace {

using vorn::PixelType;
using ImagePtr = boost::shared_ptr<vorn::ImageObject>;

template <class T>
ImagePtr imageOf(PixelType::Type type, const std::vector<T>& pixels) {
  ImagePtr image(new vorn::ImageObject);
  vorn::Box box(1);
  box.m_size[0] = pixels.size();
  image->Allocate(type, box);
  if (!pixels.empty()) std::memcpy(image->getBuffer(), pixels.data(), pixels.size() * sizeof(T));
  return image;
}

template <class T>
std::vector<T> pixelsOf(const ImagePtr& image) {
  const T* first = static_cast<const T*>(image->getBuffer());
  return std::vector<T>(first, first + image->getPixelNumber());
}

ImagePtr maskOf(const std::vector<unsigned char>& m) { return imageOf(PixelType::UCHAR, m); }

// Tests short and float images: outside becomes +0, inside keeps every bit.
TEST(RestrictImageToRoi, ZeroesOutsideKeepsInside) {
  ImagePtr shorts = imageOf<short>(PixelType::SHORT, {5, -3, 7, 9});
  vorn::restrictImageToRoi(shorts, maskOf({1, 0, 255, 0}));
  EXPECT_EQ((std::vector<short>{5, 0, 7, 0}), pixelsOf<short>(shorts));

  const float nan = std::numeric_limits<float>::quiet_NaN();
  ImagePtr floats = imageOf<float>(PixelType::FLOAT, {-1.5f, 2.0f, -0.0f, nan});
  vorn::restrictImageToRoi(floats, maskOf({0, 7, 1, 1}));
  const std::vector<float> result = pixelsOf<float>(floats);
  EXPECT_FALSE(std::signbit(result[0]));  // +0.0
  EXPECT_EQ(2.0f, result[1]);
  EXPECT_TRUE(std::signbit(result[2]));  // -0.0 inside stays -0.0
  EXPECT_TRUE(std::isnan(result[3]));
}

// Tests the vectorised loops against the plain rule on lengths leaving every kind of tail.
TEST(RestrictImageToRoi, MergeBufferOnLongBuffers) {
  for (unsigned long count : {1ul, 15ul, 17ul, 1000ul, 4099ul}) {
    std::vector<unsigned char> mask(count), bytes(count), expectedBytes(count);
    std::vector<short> shorts(count), expectedShorts(count);
    for (unsigned long k = 0; k < count; ++k) {
      mask[k] = static_cast<unsigned char>(k % 5 == 0 ? 0 : k * 13);
      bytes[k] = static_cast<unsigned char>(k * 31 + 1);
      shorts[k] = static_cast<short>(k * 7919);
      expectedBytes[k] = mask[k] ? bytes[k] : 0;
      expectedShorts[k] = mask[k] ? shorts[k] : 0;
    }
    vorn::mergeBuffer<unsigned char, unsigned char>(bytes.data(), mask.data(), count);
    vorn::mergeBuffer<short, unsigned char>(shorts.data(), mask.data(), count);
    EXPECT_EQ(expectedBytes, bytes) << count;
    EXPECT_EQ(expectedShorts, shorts) << count;
  }
}

// Tests refusals that change nothing: an unknown type (open line), what would read or write out
// of bounds. An image of no pixels writes nothing.
TEST(RestrictImageToRoi, Refusals) {
  const auto restrict = [](ImagePtr image, ImagePtr mask) {
    return printedBy([&] { vorn::restrictImageToRoi(image, mask); });
  };
  EXPECT_EQ("ERROR restrictImageToRoi :  UNSUPPORTED PIXEL TYPE !!!",
            restrict(imageOf<short>(PixelType::UNKNOWN, {}), maskOf({})));
  EXPECT_EQ("", restrict(imageOf<short>(PixelType::SHORT, {}), ImagePtr()));
  ImagePtr shorts = imageOf<short>(PixelType::SHORT, {4, 5, 6});
  EXPECT_EQ("ERROR restrictImageToRoi : mask smaller than image\n",
            restrict(shorts, maskOf({0, 0})));
  EXPECT_EQ("ERROR restrictImageToRoi : no mask image\n", restrict(shorts, ImagePtr()));
  EXPECT_EQ((std::vector<short>{4, 5, 6}), pixelsOf<short>(shorts));
}

}  // namespace

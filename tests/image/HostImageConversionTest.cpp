#include "vorn/HostImageConversion.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <stdexcept>
#include <zelData/Image.hpp>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"

namespace {

using vorn::ImageObject;
using vorn::PixelType;
using HostPtr = boost::shared_ptr<data::Image>;

HostPtr hostImage(const char* type, std::vector<int> size, std::vector<double> origin,
                  std::vector<double> spacing) {
  HostPtr img(new data::Image);
  img->setDimension(static_cast<unsigned char>(size.size()));
  img->setPixelType(zelTools::makeDynamicType(std::string(type)));
  img->setBuffer(new char[64]);
  img->setCRefSize(size);
  img->setCRefOrigin(origin);
  img->setCRefSpacing(spacing);
  return img;
}

double viaFloat(double value) { return static_cast<float>(value); }

vorn::Box box2(unsigned long x, unsigned long y) {
  vorn::Box box(2);
  box.m_size[0] = x;
  box.m_size[1] = y;
  return box;
}

// Tests a 4x5 float host image described in vorn, then described back in a new host image.
TEST(HostImageConversion, FloatImageThereAndBack) {
  HostPtr host = hostImage("float", {4, 5}, {1.9, -1.9}, {0.1, 2.0});
  ImageObject image;
  EXPECT_EQ("img->getPixelType().string()float\n",
            printedBy([&] { vorn::ToVornImage(host, &image); }));
  EXPECT_EQ(PixelType::FLOAT, image.getPointType());
  EXPECT_EQ(20u, image.getPixelNumber());
  EXPECT_EQ(-1, image.getBufferedRegion().m_start[1]);  // truncated toward zero
  EXPECT_EQ(5u, image.getBufferedRegion().m_size[1]);
  EXPECT_EQ(viaFloat(-1.9), image.getOrigin(1));
  EXPECT_EQ(viaFloat(0.1), image.getSpacing(0));
  EXPECT_EQ(host->getBuffer(), image.getBuffer());
  EXPECT_FALSE(image.getManageItsBuffer());

  // The new host image shares the buffer the first owns: kept for good, not to free it twice.
  static data::Image* const sharing = new data::Image;
  vorn::FromVornImage(&image, HostPtr(sharing, [](data::Image*) {}));
  EXPECT_EQ((std::vector<int>{4, 5}), sharing->getCRefSize());
  EXPECT_EQ((std::vector<double>{1.0, -1.0}), sharing->getCRefOrigin());
  EXPECT_EQ((std::vector<double>{viaFloat(0.1), 2.0}), sharing->getCRefSpacing());
  EXPECT_EQ(host->getBuffer(), sharing->getBuffer());
  EXPECT_EQ("float", sharing->getPixelType().string());
}

// Tests the 16-bit round trip through the host's own name; the buffer is then the host's alone.
TEST(HostImageConversion, ShortRoundTripHandsTheBufferOver) {
  CoutCapture out;
  HostPtr host(new data::Image);
  void* buffer;
  {
    ImageObject image;
    image.Allocate(PixelType::SHORT, box2(3, 2));
    buffer = image.getBuffer();
    vorn::FromVornImage(&image, host);
  }
  static_cast<short*>(buffer)[5] = -2;
  EXPECT_EQ("signed short", host->getPixelType().string());
  ImageObject back;
  back.Allocate(PixelType::UCHAR, box2(1, 1));  // owned before: freed, not lost
  vorn::ToVornImage(host, &back);
  EXPECT_EQ(PixelType::SHORT, back.getPointType());
  EXPECT_EQ(-2, static_cast<short*>(back.getBuffer())[5]);
}

// Tests an unknown pixel type: the host geometry is written, its type and buffer are not, the
// ImageObject keeps its buffer; unknown host types give type 0; refusals say so.
TEST(HostImageConversion, UnknownTypesAndRefusals) {
  CoutCapture out;
  HostPtr host = hostImage("double", {7}, {0.0}, {1.0});
  ImageObject image;
  image.Allocate(PixelType::UNKNOWN, box2(2, 3));
  EXPECT_THROW(vorn::FromVornImage(&image, host), std::invalid_argument);
  EXPECT_EQ((std::vector<int>{2, 3}), host->getCRefSize());
  EXPECT_EQ("double", host->getPixelType().string());
  EXPECT_TRUE(image.getManageItsBuffer());

  host->setDimension(1);
  vorn::ToVornImage(host, &image);
  EXPECT_EQ(PixelType::UNKNOWN, image.getPointType());
  EXPECT_EQ(host->getBuffer(), image.getBuffer());
  host->setDimension(3);
  out.take();
  vorn::ToVornImage(host, &image);
  vorn::FromVornImage(nullptr, host);
  EXPECT_EQ("ToVornImage : host image geometry incomplete\nFromVornImage : no image to convert\n",
            out.str());
}

// Tests host images describing no possible buffer: each throws naming the impossible value,
// prints nothing and leaves the ImageObject as it was. No pixels need no buffer.
TEST(HostImageConversion, ImpossibleHostImagesThrowAndChangeNothing) {
  ImageObject image;
  image.Allocate(PixelType::SHORT, box2(2, 3));
  image.setOrigin(1, 4.0);
  const auto stateOf = [&image] { return printedBy([&] { image.print(); }); };
  const std::string before = stateOf();
  HostPtr noBuffer = hostImage("float", {4, 5}, {0.0, 0.0}, {1.0, 1.0});
  noBuffer->setBuffer(nullptr);
  const std::pair<HostPtr, std::string> cases[] = {
      {hostImage("float", {4, -3}, {0.0, 0.0}, {1.0, 1.0}), "host size -3 on axis 1 is impossible"},
      {hostImage("unsigned char", {65536, 65536, 65536, 65536}, {0, 0, 0, 0}, {1, 1, 1, 1}),
       "host sizes 65536 x 65536 x 65536 x 65536 multiply to more pixels than can be counted"},
      // (2^31 - 1)^2 pixels fit in 64 bits; four bytes each do not.
      {hostImage("float", {INT_MAX, INT_MAX}, {0.0, 0.0}, {1.0, 1.0}),
       "host image of 4611686014132420609 pixels of float needs more bytes than memory can hold"},
      {noBuffer, "host image of 20 pixels has no buffer"},
      {hostImage("float", {4}, {std::nan("")}, {1.0}),
       "host origin nan on axis 0 is no start index"},
  };
  CoutCapture out;
  for (const auto& [host, message] : cases) {
    EXPECT_EQ("ToVornImage : " + message,
              thrownBy<std::invalid_argument>([&] { vorn::ToVornImage(host, &image); }));
    EXPECT_EQ(before, stateOf());
    EXPECT_TRUE(image.getManageItsBuffer());
  }
  EXPECT_EQ("", out.str());
  noBuffer->setCRefSize({0, 5});
  vorn::ToVornImage(noBuffer, &image);
  EXPECT_EQ(0u, image.getPixelNumber());
}

// Tests the way back: a size beyond the host's int throws, more than 255 axes are refused, and
// the host image is left as it was.
TEST(HostImageConversion, SizesTheHostCannotHoldChangeNothing) {
  CoutCapture out;
  HostPtr host = hostImage("float", {4, 5}, {1.0, 2.0}, {0.5, 0.5});
  void* const hostBuffer = host->getBuffer();
  ImageObject wide, manyAxes;
  vorn::Box box(1);
  box.m_size[0] = 3000000000ul;
  wide.reDefine(PixelType::UNKNOWN, box, nullptr);  // no bytes, so no buffer needed
  EXPECT_EQ("FromVornImage : size 3000000000 on axis 0 does not fit in a host image",
            thrownBy<std::invalid_argument>([&] { vorn::FromVornImage(&wide, host); }));
  manyAxes.Allocate(PixelType::UCHAR, vorn::Box(256));
  vorn::FromVornImage(&manyAxes, host);
  EXPECT_EQ("FromVornImage : more axes than the host image holds\n", out.str());
  EXPECT_EQ((std::vector<int>{4, 5}), host->getCRefSize());
  EXPECT_EQ("float", host->getPixelType().string());
  EXPECT_EQ(hostBuffer, host->getBuffer());
  EXPECT_TRUE(wide.getManageItsBuffer() && manyAxes.getManageItsBuffer());
}

}  // namespace

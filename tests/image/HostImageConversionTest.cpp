#include "vorn/HostImageConversion.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <zelData/Image.hpp>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"

namespace {

using vorn::ImageObject;
using vorn::PixelType;
using HostPtr = boost::shared_ptr<data::Image>;

HostPtr hostImage(const char* type, std::vector<int> size, std::vector<double> origin,
                  std::vector<double> spacing, std::size_t bytesPerPixel) {
  HostPtr img(new data::Image);
  img->setDimension(static_cast<unsigned char>(size.size()));
  img->setPixelType(zelTools::makeDynamicType(std::string(type)));
  std::size_t pixels = 1;
  for (int s : size) pixels *= static_cast<std::size_t>(s);
  img->setBuffer(new char[pixels * bytesPerPixel]);
  img->setCRefSize(size);
  img->setCRefOrigin(origin);
  img->setCRefSpacing(spacing);
  return img;
}

double throughFloat(double value) { return static_cast<float>(value); }

// Tests a 4x5 float host image described in vorn: geometry, rounded origin and spacing, the
// shared buffer, the trace line; then described back in a new host image.
TEST(HostImageConversion, FloatImageThereAndBack) {
  CoutCapture out;
  HostPtr host = hostImage("float", {4, 5}, {1.9, -1.9}, {0.1, 2.0}, 4);
  ImageObject image;
  vorn::ToVornImage(host, &image);
  EXPECT_EQ("img->getPixelType().string()float\n", out.take());
  EXPECT_EQ(PixelType::FLOAT, image.getPointType());
  EXPECT_EQ(2u, image.getDimension());
  EXPECT_EQ(20u, image.getPixelNumber());
  EXPECT_EQ(1, image.getBufferedRegion().m_start[0]);
  EXPECT_EQ(-1, image.getBufferedRegion().m_start[1]);  // truncated toward zero
  EXPECT_EQ(5u, image.getBufferedRegion().m_size[1]);
  EXPECT_EQ(throughFloat(1.9), image.getOrigin(0));
  EXPECT_EQ(throughFloat(-1.9), image.getOrigin(1));
  EXPECT_EQ(throughFloat(0.1), image.getSpacing(0));
  EXPECT_EQ(2.0, image.getSpacing(1));
  EXPECT_EQ(host->getBuffer(), image.getBuffer());
  EXPECT_FALSE(image.getManageItsBuffer());

  // The second host image shares the buffer the first still owns (see the header's hazard):
  // it is kept for the life of the process rather than freeing the buffer a second time.
  static data::Image* const sharing = new data::Image;
  vorn::FromVornImage(&image, HostPtr(sharing, [](data::Image*) {}));
  EXPECT_EQ(2, sharing->getDimension());
  EXPECT_EQ((std::vector<int>{4, 5}), sharing->getCRefSize());
  EXPECT_EQ((std::vector<double>{1.0, -1.0}), sharing->getCRefOrigin());
  EXPECT_EQ((std::vector<double>{throughFloat(0.1), 2.0}), sharing->getCRefSpacing());
  EXPECT_EQ(host->getBuffer(), sharing->getBuffer());
  EXPECT_EQ("float", sharing->getPixelType().string());
}

// Tests the 16-bit round trip through the host's own name, and that the buffer then belongs to
// the host image alone: it outlives the ImageObject and is freed once, by the host.
TEST(HostImageConversion, ShortRoundTripHandsTheBufferOver) {
  CoutCapture out;
  HostPtr host(new data::Image);
  void* buffer;
  {
    ImageObject image;
    vorn::Box box(2);
    box.m_size[0] = 3;
    box.m_size[1] = 2;
    image.Allocate(PixelType::SHORT, box);
    buffer = image.getBuffer();
    vorn::FromVornImage(&image, host);
    EXPECT_FALSE(image.getManageItsBuffer());
  }
  static_cast<short*>(buffer)[5] = -2;  // still alive after the image went
  EXPECT_EQ("signed short", host->getPixelType().string());
  EXPECT_EQ(buffer, host->getBuffer());

  ImageObject back;
  vorn::ToVornImage(host, &back);
  EXPECT_EQ(PixelType::SHORT, back.getPointType());
  EXPECT_EQ(-2, static_cast<short*>(back.getBuffer())[5]);
}

// Tests what an unknown pixel type leaves: the host geometry written, its type and buffer not,
// and the ImageObject still owning its buffer; a fresh image only sets the dimension to 0.
TEST(HostImageConversion, UnknownPixelTypeThrowsAfterTheGeometry) {
  CoutCapture out;
  HostPtr host = hostImage("double", {7}, {0.0}, {1.0}, 8);
  void* const hostBuffer = host->getBuffer();
  ImageObject fresh;
  EXPECT_THROW(vorn::FromVornImage(&fresh, host), std::invalid_argument);
  EXPECT_EQ(0, host->getDimension());

  ImageObject image;
  vorn::Box box(2);
  box.m_size[0] = 2;
  box.m_size[1] = 3;
  image.Allocate(PixelType::UNKNOWN, box);
  try {
    vorn::FromVornImage(&image, host);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ("KeyType value incorrect : no corresponding Type in typelist", e.what());
  }
  EXPECT_EQ((std::vector<int>{2, 3}), host->getCRefSize());
  EXPECT_EQ("double", host->getPixelType().string());
  EXPECT_EQ(hostBuffer, host->getBuffer());
  EXPECT_TRUE(image.getManageItsBuffer());
}

// Tests host types vorn does not know (pixel type 0, the host's buffer kept), an image that
// owned a buffer before (freed, not lost), and the refusals.
TEST(HostImageConversion, ForeignTypesAndRefusals) {
  CoutCapture out;
  HostPtr doubles = hostImage("double", {3}, {0.0}, {1.0}, 8);
  ImageObject image;
  vorn::Box box(1);
  box.m_size[0] = 8;
  image.Allocate(PixelType::UCHAR, box);  // owned: must not leak
  vorn::ToVornImage(doubles, &image);
  EXPECT_EQ(PixelType::UNKNOWN, image.getPointType());
  EXPECT_EQ(doubles->getBuffer(), image.getBuffer());

  out.take();
  HostPtr incomplete(new data::Image);
  incomplete->setDimension(2);
  vorn::ToVornImage(incomplete, &image);
  vorn::ToVornImage(HostPtr(), &image);
  vorn::FromVornImage(nullptr, doubles);
  EXPECT_EQ(
      "ToVornImage : host image geometry incomplete\nToVornImage : no image to convert\n"
      "FromVornImage : no image to convert\n",
      out.take());
  EXPECT_EQ(doubles->getBuffer(), image.getBuffer());
}

}  // namespace

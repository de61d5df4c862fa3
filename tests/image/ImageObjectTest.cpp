#include "vorn/ImageObject.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "CoutCapture.hpp"
#include "vorn/Parameter.hpp"

// Records the sizes of array allocations, so tests can check the bytes an image asks for.
// Replacing the global operator in the test program reaches the library's calls too.
static std::size_t g_arrayBytes[16];
static std::size_t g_arrayCount = 0;

void* operator new[](std::size_t bytes) {
  g_arrayBytes[g_arrayCount++ % 16] = bytes;
  if (void* p = std::malloc(bytes == 0 ? 1 : bytes)) return p;
  throw std::bad_alloc();
}
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

// The sizes of the array allocations since the last call, in order, leaving out those of
// `axisArrayBytes` (the per-axis arrays of boxes, spacing and origin).
std::vector<std::size_t> takeArrayAllocations(std::size_t axisArrayBytes = 0) {
  std::vector<std::size_t> sizes;
  for (std::size_t i = 0; i < std::min<std::size_t>(g_arrayCount, 16); ++i) {
    if (g_arrayBytes[i] != axisArrayBytes) sizes.push_back(g_arrayBytes[i]);
  }
  g_arrayCount = 0;
  return sizes;
}

using vorn::Box;
using vorn::ImageObject;
using vorn::PixelType;

Box makeBox(std::initializer_list<unsigned long> sizes) {
  Box box(static_cast<unsigned int>(sizes.size()));
  unsigned int k = 0;
  for (unsigned long s : sizes) box.m_size[k++] = s;
  return box;
}

// A hook that reports whatever the test says and counts the calls it receives.
class CountingImageIO : public vorn::IImageIO {
 public:
  explicit CountingImageIO(bool dumped) : vorn::IImageIO(nullptr), m_dumped(dumped) {}
  void restore() override { ++restores; }
  void dump() override { ++dumps; }
  bool isDumped() override { return m_dumped; }
  int restores = 0;
  int dumps = 0;

 private:
  bool m_dumped;
};

// A hook that really moves a float image out (pixels, box, spacing, origin) and back.
class SwappingImageIO : public vorn::IImageIO {
 public:
  explicit SwappingImageIO(ImageObject* image) : vorn::IImageIO(image) {}
  void dump() override {
    const unsigned int n = m_image->getDimension();
    m_box = m_image->getBufferedRegion();
    m_spacing.assign(m_image->getSpacing(), m_image->getSpacing() + n);
    m_origin.assign(m_image->getOrigin(), m_image->getOrigin() + n);
    const char* pixels = static_cast<const char*>(m_image->getBuffer());
    m_pixels.assign(pixels, pixels + m_image->getPixelNumber() * sizeof(float));
    m_image->initialize();
    m_dumped = true;
  }
  void restore() override {
    ++restores;
    char* pixels = new char[m_pixels.size()];
    std::memcpy(pixels, m_pixels.data(), m_pixels.size());
    // Still reporting "dumped" here: the image must not call back into this hook.
    m_image->restore(PixelType::FLOAT, m_box, pixels);
    m_dumped = false;
    for (unsigned int i = 0; i < m_box.m_dimension; ++i) {
      m_image->setSpacing(i, m_spacing[i]);
      m_image->setOrigin(i, m_origin[i]);
    }
  }
  bool isDumped() override { return m_dumped; }
  int restores = 0;

 private:
  bool m_dumped = false;
  Box m_box;
  std::vector<double> m_spacing, m_origin;
  std::vector<char> m_pixels;
};

// Tests the printed form of a new image: name, generator line, dimension 0, "No data yet".
TEST(ImageObject, NewImagePrintsNoData) {
  ImageObject image;
  CoutCapture out;
  image.print();
  EXPECT_EQ("DataObjectName : ImageObject\n\n  Generator = 0\nDimension : 0\nNo data yet\n",
            out.str());
  EXPECT_TRUE(image.getManageItsBuffer());
  EXPECT_EQ(nullptr, image.getBuffer());
}

// Tests Allocate's description of the image and the exact bytes it asks for.
TEST(ImageObject, AllocateDescribesAndSizesTheBuffer) {
  ImageObject image;
  const Box box = makeBox({3, 4});
  takeArrayAllocations();
  image.Allocate(PixelType::SHORT, box);
  EXPECT_EQ(std::vector<std::size_t>{24}, takeArrayAllocations(16));  // 12 pixels of 2 bytes
  EXPECT_EQ(2u, image.getDimension());
  EXPECT_EQ(12u, image.getPixelNumber());
  EXPECT_EQ(PixelType::SHORT, image.getPointType());
  EXPECT_TRUE(image.getBufferedRegion() == box);
  for (unsigned int axis = 0; axis < 2; ++axis) {
    EXPECT_EQ(1.0, image.getSpacing(axis));
    EXPECT_EQ(0.0, image.getOrigin(axis));
  }
  EXPECT_TRUE(image.getManageItsBuffer());

  const Box unknown = makeBox({5, 2});
  takeArrayAllocations();
  image.Allocate(PixelType::UNKNOWN, unknown);
  EXPECT_EQ(std::vector<std::size_t>{0}, takeArrayAllocations(16));  // no bytes per pixel...
  EXPECT_EQ(10u, image.getPixelNumber());  // ...but the box still counts its pixels
}

// Tests the full printed form of a defined image, including "Nb points" and the pointer on one
// line.
TEST(ImageObject, DefinedImagePrintsItsDescription) {
  ImageObject image;
  Box box = makeBox({3, 4});
  box.m_start[1] = -2;
  image.Allocate(PixelType::FLOAT, box);
  image.setSpacing(1, 0.5);
  image.setOrigin(0, 2.25);

  CoutCapture out;
  image.print();
  const std::string text = out.str();
  const std::string regionAddress = addressText(&image.getBufferedRegion());
  EXPECT_EQ(
      "DataObjectName : ImageObject\n\n  Generator = 0\nDimension : 2\n"
      "Pixel Type : float\nSpacing : \nv0 = 1 v1 = 0.5 \nOrigin : \no0 = 2.25 o1 = 0 \n"
      "Buffered Region : \nBox : adress = " +
          regionAddress +
          "\nDimension: 2\nStart: 0\nStart: -2\nSize: 3\nSize: 4\n"
          "Nb points : 12Data pointer adress : " +
          addressText(image.getBuffer()) + "\nData Buffer Dumped = 0\n\n",
      text);
}

// Tests that describing an image over a box without axes reports it and leaves no arrays.
TEST(ImageObject, ZeroDimensionBoxIsReported) {
  ImageObject image;
  image.Allocate(PixelType::UCHAR, makeBox({2, 2}));
  CoutCapture out;
  image.reDefine(PixelType::UCHAR, Box(), nullptr);
  image.restore(PixelType::FLOAT, Box(), nullptr);
  const std::string message =
      "in ImageObject::AllocateInformationBuffers : m_dimension not correctly set\n";
  EXPECT_EQ(message + message, out.str());
  EXPECT_EQ(0u, image.getDimension());
  EXPECT_EQ(0u, image.getPixelNumber());
  EXPECT_EQ(nullptr, image.getSpacing());
  EXPECT_EQ(nullptr, image.getOrigin());
}

// Tests the ownership rules on a borrowed buffer: initialize and destruction leave it alone,
// reDefine frees it (documented hazard) and keeps the flag. Leaks and double frees would show
// under the sanitizers.
TEST(ImageObject, BorrowedBufferOwnership) {
  char* borrowed = new char[8];
  {
    ImageObject image;
    image.manageItsBuffer(false);
    image.reDefine(PixelType::UCHAR, makeBox({8}), borrowed);
    image.initialize();
    EXPECT_EQ(nullptr, image.getBuffer());
    image.reDefine(PixelType::UCHAR, makeBox({8}), borrowed);
  }
  borrowed[7] = 1;  // still ours: the destructor did not free it

  char* handedOver = new char[4];
  ImageObject image;
  image.manageItsBuffer(false);
  image.reDefine(PixelType::UCHAR, makeBox({4}), handedOver);
  image.reDefine(PixelType::UCHAR, makeBox({8}), borrowed);  // frees handedOver despite the flag
  EXPECT_FALSE(image.getManageItsBuffer());
  image.manageItsBuffer(true);  // hand `borrowed` to the image so that it is freed once
}

// Tests that import copies pixels and description, reusing the buffer only when type and
// pixel count match.
TEST(ImageObject, ImportDeepCopies) {
  ImageObject source;
  Box box = makeBox({2, 3});
  box.m_start[0] = 7;
  source.Allocate(PixelType::SHORT, box);
  short* pixels = static_cast<short*>(source.getBuffer());
  for (short i = 0; i < 6; ++i) pixels[i] = static_cast<short>(-i);
  source.setSpacing(0, 3.0);

  ImageObject copy;
  copy.Allocate(PixelType::SHORT, makeBox({6}));
  void* const reused = copy.getBuffer();
  copy.import(&source, nullptr);
  EXPECT_EQ(reused, copy.getBuffer());  // 6 shorts either way
  EXPECT_TRUE(copy.getBufferedRegion() == box);
  EXPECT_EQ(3.0, copy.getSpacing(0));
  EXPECT_EQ(0, std::memcmp(pixels, copy.getBuffer(), 12));
  EXPECT_NE(source.getBuffer(), copy.getBuffer());

  ImageObject floats;
  floats.Allocate(PixelType::FLOAT, makeBox({6}));
  takeArrayAllocations();
  floats.import(&source, nullptr);
  EXPECT_EQ(std::vector<std::size_t>{12}, takeArrayAllocations(16));  // the source's 12 bytes
  EXPECT_EQ(PixelType::SHORT, floats.getPointType());
  EXPECT_EQ(-5, static_cast<short*>(floats.getBuffer())[5]);
}

// A data object that is not an image, to feed import and the generator tests.
class NotAnImage : public vorn::DataObject {
 public:
  void print() const override {}
  PixelType::Type getPointType() const override { return PixelType::UNKNOWN; }
  const Box& getBufferedRegion() const override { return m_box; }

 private:
  Box m_box;
};

// Tests that import from nothing, from a non-image or from itself loses nothing.
TEST(ImageObject, ImportWithoutAnImageSourceChangesNothing) {
  ImageObject image;
  image.Allocate(PixelType::FLOAT, makeBox({4}));
  static_cast<float*>(image.getBuffer())[3] = 1.5f;
  void* const buffer = image.getBuffer();
  NotAnImage other;
  CoutCapture out;
  image.import(nullptr, nullptr);
  image.import(&other, nullptr);
  image.import(&image, nullptr);
  EXPECT_EQ("", out.str());
  EXPECT_EQ(buffer, image.getBuffer());
  EXPECT_EQ(4u, image.getPixelNumber());
  EXPECT_EQ(1.5f, static_cast<float*>(image.getBuffer())[3]);
}

// Tests that every restoring accessor asks a dumped hook to restore once, and that print and
// dump do not.
TEST(ImageObject, RestoringAccessorsCallTheHook) {
  ImageObject image;
  boost::shared_ptr<CountingImageIO> hook(new CountingImageIO(true));
  image.setImageIO(hook);
  const ImageObject& constImage = image;

  const std::vector<void (*)(ImageObject&)> accessors = {
      [](ImageObject& i) { i.getDimension(); },
      [](ImageObject& i) { i.getPointType(); },
      [](ImageObject& i) { i.getBufferedRegion(); },
      [](ImageObject& i) { i.getPixelNumber(); },
      [](ImageObject& i) { i.getBuffer(); },
      [](ImageObject& i) { static_cast<const ImageObject&>(i).getBuffer(); },
      [](ImageObject& i) { i.getSpacing(); },
      [](ImageObject& i) { i.getOrigin(); },
  };
  for (auto accessor : accessors) {
    const int before = hook->restores;
    accessor(image);
    EXPECT_EQ(before + 1, hook->restores);
  }

  CoutCapture out;
  constImage.print();
  image.dump();
  EXPECT_EQ(static_cast<int>(accessors.size()), hook->restores);
  EXPECT_EQ(0, hook->dumps);  // already dumped: not dumped again
  EXPECT_EQ("DataObjectName : ImageObject\n\n  Generator = 0\nImage is dumped \n", out.str());
}

// Tests that dump reaches a hook that is not dumped, and an undumped hook is never restored.
TEST(ImageObject, DumpAsksAnUndumpedHook) {
  ImageObject image;
  boost::shared_ptr<CountingImageIO> hook(new CountingImageIO(false));
  image.setImageIO(hook);
  image.dump();
  image.getBuffer();
  EXPECT_EQ(1, hook->dumps);
  EXPECT_EQ(0, hook->restores);
}

// Tests a hook that really swaps a 3-axis image out and back, rebuilding it from inside its own
// restore() while it still reports "dumped".
TEST(ImageObject, SwappingHookRestoresAMultiAxisImage) {
  ImageObject image;
  boost::shared_ptr<SwappingImageIO> hook(new SwappingImageIO(&image));
  image.setImageIO(hook);
  Box box = makeBox({2, 3, 4});
  box.m_start[2] = -1;
  image.Allocate(PixelType::FLOAT, box);
  float* pixels = static_cast<float*>(image.getBuffer());
  for (int i = 0; i < 24; ++i) pixels[i] = static_cast<float>(i) * 0.5f;
  image.setSpacing(2, 4.0);
  image.setOrigin(1, -3.0);

  image.dump();
  EXPECT_TRUE(hook->isDumped());
  pixels = static_cast<float*>(image.getBuffer());
  EXPECT_EQ(1, hook->restores);
  EXPECT_EQ(3u, image.getDimension());
  EXPECT_TRUE(image.getBufferedRegion() == box);
  EXPECT_EQ(11.5f, pixels[23]);
  EXPECT_EQ(4.0, image.getSpacing(2));
  EXPECT_EQ(-3.0, image.getOrigin(1));
  EXPECT_EQ(1, hook->restores);  // restored once, not again
}

// Tests the refusals: an empty hook and axes out of range change nothing and say so.
TEST(ImageObject, RefusesEmptyHookAndBadAxes) {
  ImageObject image;
  image.Allocate(PixelType::UCHAR, makeBox({2}));
  const boost::shared_ptr<vorn::IImageIO> hook = image.getImageIO();
  CoutCapture out;
  image.setImageIO(boost::shared_ptr<vorn::IImageIO>());
  image.setSpacing(1, 2.0);
  EXPECT_EQ(0.0, image.getOrigin(5));
  EXPECT_EQ(
      "ImageObject::setImageIO empty storage hook refused\n"
      "ImageObject::setSpacing axis 1 out of range\nImageObject::getOrigin axis 5 out of range\n",
      out.str());
  EXPECT_EQ(hook, image.getImageIO());
}

}  // namespace

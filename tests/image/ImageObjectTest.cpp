#include "vorn/ImageObject.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <vector>

#include "CoutCapture.hpp"
#include "MemorySwapImageIO.hpp"

// Records the sizes of array allocations other than per-axis arrays (multiples of 8 bytes), so
// tests see the bytes a pixel buffer asks for. The replacement reaches the library's calls.
// Above 1 GiB it records the request and fails as if memory were exhausted: a test can then ask
// for sizes no machine has without the allocator (or a sanitizer) ever seeing them.
static std::vector<std::size_t>* g_pixelAllocations = nullptr;
constexpr std::size_t kTestMemory = std::size_t{1} << 30;
void* operator new[](std::size_t bytes) {
  if (g_pixelAllocations != nullptr && (bytes == 0 || bytes % 8 != 0 || bytes > kTestMemory))
    g_pixelAllocations->push_back(bytes);
  if (bytes > kTestMemory) throw std::bad_alloc();
  if (void* p = std::malloc(bytes == 0 ? 1 : bytes)) return p;
  throw std::bad_alloc();
}
// Records the arrays freed, so tests see which buffers the library lets go.
static std::vector<const void*>* g_freedArrays = nullptr;
static void freeArray(void* p) {
  if (g_freedArrays != nullptr && p != nullptr) g_freedArrays->push_back(p);
  std::free(p);
}
void operator delete[](void* p) noexcept { freeArray(p); }
void operator delete[](void* p, std::size_t) noexcept { freeArray(p); }

namespace {

using vorn::Box;
using vorn::ImageObject;
using vorn::PixelType;

Box makeBox(std::vector<unsigned long> sizes) {
  Box box(static_cast<unsigned int>(sizes.size()));
  for (unsigned int k = 0; k < box.m_dimension; ++k) box.m_size[k] = sizes[k];
  return box;
}

// Reports "dumped" as told and counts the calls it receives.
class CountingIO : public vorn::IImageIO {
 public:
  explicit CountingIO(bool dumped) : vorn::IImageIO(nullptr), m_dumped(dumped) {}
  void restore() override { ++restores; }
  void dump() override { ++dumps; }
  bool isDumped() override { return m_dumped; }
  int restores = 0, dumps = 0;

 private:
  bool m_dumped;
};

const std::string kHead = "DataObjectName : ImageObject\n\n  Generator = 0\n";

// Tests the printed form of a defined image (the pixel count runs into the pointer label), the
// exact bytes Allocate asks for (an unknown type included) and a box without axes.
TEST(ImageObject, AllocateAndPrint) {
  std::vector<std::size_t> allocations;
  g_pixelAllocations = &allocations;
  ImageObject image;
  image.Allocate(PixelType::SHORT, makeBox({3, 5}));
  image.Allocate(PixelType::UNKNOWN, makeBox({5, 3}));
  g_pixelAllocations = nullptr;
  EXPECT_EQ((std::vector<std::size_t>{30, 0}), allocations);
  EXPECT_EQ(15u, image.getPixelNumber());  // the box still counts its pixels
  EXPECT_TRUE(image.getManageItsBuffer());
  Box box = makeBox({3, 4});
  box.m_start[1] = -2;
  image.Allocate(PixelType::FLOAT, box);
  image.setSpacing(1, 0.5);
  image.setOrigin(0, 2.25);
  EXPECT_EQ(kHead +
                "Dimension : 2\nPixel Type : float\nSpacing : \nv0 = 1 v1 = 0.5 \nOrigin : \n"
                "o0 = 2.25 o1 = 0 \nBuffered Region : \nBox : adress = " +
                addressText(&image.getBufferedRegion()) +
                "\nDimension: 2\nStart: 0\nStart: -2\nSize: 3\nSize: 4\n"
                "Nb points : 12Data pointer adress : " +
                addressText(image.getBuffer()) + "\nData Buffer Dumped = 0\n\n",
            printedBy([&] { image.print(); }));
  EXPECT_EQ("in ImageObject::AllocateInformationBuffers : m_dimension not correctly set\n",
            printedBy([&] { image.reDefine(PixelType::FLOAT, Box(), nullptr); }));
  EXPECT_EQ(0u, image.getPixelNumber());
  EXPECT_EQ(nullptr, image.getSpacing());  // no arrays are made
}

// Tests a borrowed buffer: initialize and the destructor leave it, reDefine frees it anyway.
TEST(ImageObject, BorrowedBufferOwnership) {
  char* borrowed = new char[8];
  char* handedOver = new char[4];
  {
    ImageObject image;
    image.manageItsBuffer(false);
    image.reDefine(PixelType::UCHAR, makeBox({8}), borrowed);
    image.initialize();
    EXPECT_EQ(nullptr, image.getBuffer());
    EXPECT_EQ(PixelType::UNKNOWN, image.getPointType());
    EXPECT_EQ(0u, image.getDimension());
    image.reDefine(PixelType::UCHAR, makeBox({4}), handedOver);
    std::vector<const void*> freed;
    g_freedArrays = &freed;
    image.reDefine(PixelType::UCHAR, makeBox({8}), borrowed);
    g_freedArrays = nullptr;
    EXPECT_EQ(1, std::count(freed.begin(), freed.end(), handedOver));
    EXPECT_FALSE(image.getManageItsBuffer());
  }
  borrowed[7] = 1;  // the destructor left it alone
  delete[] borrowed;
}

// Tests import: a deep copy reusing the buffer only for the same type and pixel count, losing
// nothing when there is no image to copy.
TEST(ImageObject, ImportDeepCopies) {
  ImageObject source;
  source.Allocate(PixelType::SHORT, makeBox({2, 3}));
  for (short i = 0; i < 6; ++i) static_cast<short*>(source.getBuffer())[i] = static_cast<short>(-i);
  source.setSpacing(0, 3.0);
  source.setOrigin(1, -7.0);

  ImageObject same, other;
  same.Allocate(PixelType::SHORT, makeBox({6}));
  other.Allocate(PixelType::FLOAT, makeBox({6}));
  void* const reused = same.getBuffer();
  same.import(&source, nullptr);
  other.import(&source, nullptr);
  EXPECT_EQ(reused, same.getBuffer());
  EXPECT_TRUE(same.getBufferedRegion() == source.getBufferedRegion());
  EXPECT_EQ(3.0, same.getSpacing(0));
  EXPECT_EQ(-7.0, same.getOrigin(1));
  EXPECT_EQ(PixelType::SHORT, other.getPointType());
  EXPECT_EQ(0, std::memcmp(source.getBuffer(), other.getBuffer(), 12));

  EXPECT_EQ("", printedBy([&] {
              other.import(nullptr, nullptr);
              other.import(&other, nullptr);
            }));
  EXPECT_EQ(-5, static_cast<short*>(other.getBuffer())[5]);
}

// Tests the hook protocol: each restoring accessor restores a dumped image once; print and dump
// do not; an undumped hook is dumped on request and never restored.
TEST(ImageObject, HookCalls) {
  ImageObject image;
  boost::shared_ptr<CountingIO> dumped(new CountingIO(true)), fresh(new CountingIO(false));
  image.setImageIO(dumped);
  const ImageObject& constImage = image;
  image.getDimension();
  image.getPointType();
  image.getBufferedRegion();
  image.getPixelNumber();
  image.getBuffer();
  constImage.getBuffer();
  image.getSpacing();
  image.getOrigin();
  EXPECT_EQ(8, dumped->restores);
  EXPECT_EQ(kHead + "Image is dumped \n", printedBy([&] { constImage.print(); }));
  image.dump();
  EXPECT_EQ(8, dumped->restores);
  EXPECT_EQ(0, dumped->dumps);

  image.setImageIO(fresh);
  image.dump();
  image.getBuffer();
  EXPECT_EQ(1, fresh->dumps);
  EXPECT_EQ(0, fresh->restores);
}

// Tests a hook swapping a 3-axis image out and back: rebuilt from inside the hook's restore()
// without being sent round again, nothing lost.
TEST(ImageObject, SwappingHookRestoresOnce) {
  ImageObject image;
  boost::shared_ptr<MemorySwapImageIO> hook(new MemorySwapImageIO(&image));
  image.setImageIO(hook);
  image.Allocate(PixelType::FLOAT, makeBox({2, 3, 4}));
  static_cast<float*>(image.getBuffer())[23] = 11.5f;
  image.setOrigin(2, -4.0);
  image.dump();
  EXPECT_TRUE(image.getBufferedRegion() == makeBox({2, 3, 4}));
  EXPECT_EQ(11.5f, static_cast<float*>(image.getBuffer())[23]);
  EXPECT_EQ(-4.0, image.getOrigin(2));
  EXPECT_EQ(1, hook->getRestoreCount());
}

// Tests the refusals: an empty hook and axes out of range change nothing and say so.
TEST(ImageObject, Refusals) {
  ImageObject image;
  image.Allocate(PixelType::UCHAR, makeBox({2}));
  const boost::shared_ptr<vorn::IImageIO> hook = image.getImageIO();
  EXPECT_EQ(
      "ImageObject::setImageIO empty storage hook refused\n"
      "ImageObject::setSpacing axis 1 out of range\nImageObject::getOrigin axis 5 out of range\n",
      printedBy([&] {
        image.setImageIO(boost::shared_ptr<vorn::IImageIO>());
        image.setSpacing(1, 2.0);
        EXPECT_EQ(0.0, image.getOrigin(5));
      }));
  EXPECT_EQ(hook, image.getImageIO());
}

// Sizes whose true products are known: 3 x kThirdOfWrap is 2^64 + 2, which unsigned long
// arithmetic wraps to 2; 4 x (2^62 + 1) bytes wraps to 4; (2^32 + 1) x (2^32 - 1) is 2^64 - 1.
constexpr unsigned long kThirdOfWrap = 6148914691236517206ul;
constexpr unsigned long k2To62 = 1ul << 62;
constexpr unsigned long k2To32 = 1ul << 32;

// Everything the image holds (buffer address, type, box, count, spacing, origin) as it prints.
std::string stateOf(const ImageObject& image) {
  return printedBy([&] { image.print(); });
}

// Tests pixel or byte counts past 64 bits or PTRDIFF_MAX: each operation sizing or adopting a
// buffer throws before anything changes and asks for no buffer (wrapping asked for 2 or 4 bytes).
TEST(ImageObjectSizes, ImpossibleSizesChangeNothingAndAllocateNothing) {
  ImageObject image;
  image.Allocate(PixelType::FLOAT, makeBox({3, 4}));
  image.setSpacing(1, 0.25);
  const std::string before = stateOf(image);
  char foreign[4] = {};
  const auto allocate = [&](PixelType::Type type, Box box) {
    return thrownBy<std::bad_alloc>([&] { image.Allocate(type, box); });
  };
  const struct {
    std::function<std::string()> operation;
    std::string failure;
  } cases[] = {
      {[&] {
         return allocate(PixelType::UCHAR, makeBox({3, kThirdOfWrap}));
       },
       "std::bad_alloc"},
      {[&] { return allocate(PixelType::FLOAT, makeBox({k2To62 + 1})); }, "std::bad_alloc"},
      {[&] {
         return allocate(PixelType::UCHAR, makeBox({k2To32 + 1, k2To32 - 1}));
       },
       "std::bad_alloc"},
      {[&] { return allocate(PixelType::SHORT, makeBox({k2To62})); }, "std::bad_alloc"},  // 2^63 B
      {[&] {
         return thrownBy<std::length_error>([&] {
           image.reDefine(PixelType::FLOAT, makeBox({3, kThirdOfWrap}), foreign);
         });
       },
       "ImageObject::reDefine : the box's sizes multiply to more pixels than can be counted"},
      {[&] {
         return thrownBy<std::length_error>(
             [&] { image.restore(PixelType::FLOAT, makeBox({k2To62 + 1}), foreign); });
       },
       "ImageObject::restore : 4611686018427387905 pixels of float need more bytes than a "
       "buffer can hold"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failure);
    std::vector<std::size_t> allocations;
    g_pixelAllocations = &allocations;
    EXPECT_EQ(c.failure, c.operation());
    g_pixelAllocations = nullptr;
    EXPECT_TRUE(allocations.empty());
    EXPECT_EQ(before, stateOf(image));
  }
}

// Tests sizes that fit: the true byte count is asked for; running out of memory for it
// (Allocate, import) leaves an empty image. A 0 on any axis makes 0 pixels despite overflow.
TEST(ImageObjectSizes, SizesThatFitAreAskedForExactly) {
  ImageObject image, source;
  std::vector<std::size_t> allocations;
  g_pixelAllocations = &allocations;
  EXPECT_THROW(image.Allocate(PixelType::SHORT, makeBox({k2To62 - 1})), std::bad_alloc);
  image.Allocate(PixelType::FLOAT, makeBox({2, 2}));
  char lent[8] = {};
  source.manageItsBuffer(false);
  source.reDefine(PixelType::UCHAR, makeBox({k2To32 / 2}), lent);  // claims 2 GiB, never read
  EXPECT_THROW(image.import(&source, nullptr), std::bad_alloc);
  g_pixelAllocations = nullptr;
  EXPECT_EQ((std::vector<std::size_t>{(k2To62 - 1) * 2, k2To32 / 2}), allocations);
  EXPECT_EQ(kHead + "Dimension : 0\nNo data yet\n", stateOf(image));
  EXPECT_EQ(nullptr, image.getBuffer());

  image.Allocate(PixelType::UCHAR, makeBox({k2To32 * 256, k2To32, 0}));
  EXPECT_EQ(0u, image.getPixelNumber());
}

}  // namespace

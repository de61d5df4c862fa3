#include "vorn/RestrictImageToRoi.hpp"

#include <cstdint>
#include <iostream>

#include "vorn/ImageObject.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {
namespace {

template <std::size_t Size>
struct SameSizeUnsigned;
template <>
struct SameSizeUnsigned<1> {
  using type = std::uint8_t;
};
template <>
struct SameSizeUnsigned<2> {
  using type = std::uint16_t;
};
template <>
struct SameSizeUnsigned<4> {
  using type = std::uint32_t;
};

bool refuse(const char* reason) {
  std::cout << "ERROR restrictImageToRoi : " << reason << std::endl;
  return false;
}

// The mask must cover every pixel, and both buffers must be there.
bool usable(const ImageObject& mask, const void* maskBuffer, const void* imageBuffer,
            unsigned long count) {
  const unsigned long maskBytes = getSizeOf(mask.getPointType()) * mask.getPixelNumber();
  if (maskBytes < count || maskBuffer == nullptr) return refuse("mask smaller than image");
  if (imageBuffer == nullptr) return refuse("image without buffer");
  return true;
}

}  // namespace

// Works on the elements' bits as unsigned integers of the same width: an all-ones or all-zeros
// lane mask selects without branches, so the compiler vectorises the loop, and a kept float is
// never touched by floating-point arithmetic (NaN payloads and -0.0 survive; zero bits are +0.0).
template <class T, class M>
void mergeBuffer(void* buffer, const void* mask, unsigned long count) {
  // may_alias: the buffer holds T, and reading it as same-width integers would otherwise break
  // the aliasing rules the optimiser relies on.
  using Bits [[gnu::may_alias]] = typename SameSizeUnsigned<sizeof(T)>::type;
  Bits* const pixels = static_cast<Bits*>(buffer);
  const M* const inside = static_cast<const M*>(mask);
  for (unsigned long k = 0; k < count; ++k) {
    const Bits keep = static_cast<Bits>(-static_cast<Bits>(inside[k] != 0));
    pixels[k] = static_cast<Bits>(pixels[k] & keep);
  }
}

template VORN_API void mergeBuffer<short, unsigned char>(void*, const void*, unsigned long);
template VORN_API void mergeBuffer<float, unsigned char>(void*, const void*, unsigned long);
template VORN_API void mergeBuffer<unsigned char, unsigned char>(void*, const void*, unsigned long);

void restrictImageToRoi(boost::shared_ptr<ImageObject> image,
                        boost::shared_ptr<ImageObject const> mask) {
  if (!image) {
    refuse("no image");
    return;
  }
  const unsigned long count = image->getPixelNumber();
  const PixelType::Type type = image->getPointType();
  void (*merge)(void*, const void*, unsigned long) = nullptr;
  if (type == PixelType::SHORT) {
    merge = mergeBuffer<short, unsigned char>;
  } else if (type == PixelType::FLOAT) {
    merge = mergeBuffer<float, unsigned char>;
  } else if (type == PixelType::UCHAR) {
    merge = mergeBuffer<unsigned char, unsigned char>;
  } else {
    std::cout << "ERROR restrictImageToRoi : "
              << " UNSUPPORTED PIXEL TYPE !!!";
    return;
  }
  if (count == 0) return;
  if (!mask) {
    refuse("no mask image");
    return;
  }
  // Each buffer is taken once, the mask's first, and the checks reuse them.
  const void* maskBuffer = mask->getBuffer();
  void* imageBuffer = image->getBuffer();
  if (usable(*mask, maskBuffer, imageBuffer, count)) merge(imageBuffer, maskBuffer, count);
}

}  // namespace vorn

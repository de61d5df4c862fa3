// Size arithmetic for pixel buffers that refuses instead of wrapping. Box::volume() wraps, as
// its contract says; everything in the core that allocates or adopts a pixel buffer counts
// through these instead, so no size can wrap into a buffer smaller than the image claims.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn/Box.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {
namespace detail {

// a x b into `product`, or false when the true product does not fit its type.
template <class T>
bool multiplyChecked(T a, T b, T& product) {
  return !__builtin_mul_overflow(a, b, &product);
}

// The product of the box's sizes (0 for no axes), or false when it does not fit. A size of 0
// makes the true product 0 whatever the other sizes are.
inline bool checkedPixelCount(const Box& box, unsigned long& count) {
  unsigned long product = box.m_dimension == 0 ? 0 : 1;
  bool fits = true;
  for (unsigned int k = 0; k < box.m_dimension; ++k) {
    if (box.m_size[k] == 0) {
      count = 0;
      return true;
    }
    fits = fits && multiplyChecked(product, box.m_size[k], product);
  }
  if (fits) count = product;
  return fits;
}

// getSizeOf(type) x count, or false above PTRDIFF_MAX: no array that large can exist, and
// new[] would refuse it with bad_array_new_length or worse.
inline bool checkedPixelBytes(PixelType::Type type, unsigned long count, std::size_t& bytes) {
  std::size_t product = 0;
  if (!multiplyChecked(std::size_t{getSizeOf(type)}, std::size_t{count}, product) ||
      product > static_cast<std::size_t>(PTRDIFF_MAX)) {
    return false;
  }
  bytes = product;
  return true;
}

}  // namespace detail
}  // namespace vorn

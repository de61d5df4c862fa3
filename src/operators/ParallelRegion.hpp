// Splitting a box of pixels into slabs for detail::parallelFor. The slabs depend on the box
// alone, so an operator whose pixels each depend only on its input gives the same bits for any
// thread count.
#pragma once

#include <algorithm>
#include <vector>

#include "ImageRegion.hpp"
#include "Parallel.hpp"

namespace vorn {
namespace detail {

// About this many pixels per slab: enough to pay for handing a chunk to a thread.
constexpr long kSlabPixels = 1L << 16;

// Calls f(part) on slabs of `region` cut across its outermost axis other than `keep` that is
// longer than one pixel (pass keep = -1u to allow every axis); a region no such axis cuts is
// handed over whole.
template <class F>
void parallelSlabs(unsigned threads, const Region& region, unsigned keep, F&& f) {
  if (region.empty()) return;
  unsigned axis = static_cast<unsigned>(region.size.size());
  while (axis-- > 0) {
    if (axis != keep && region.size[axis] > 1) break;
  }
  if (axis >= region.size.size()) {
    f(region);
    return;
  }
  long perIndex = 1;
  for (std::size_t a = 0; a < region.size.size(); ++a) {
    if (a != axis) perIndex *= region.size[a];
  }
  const long grain = std::max(1L, (kSlabPixels + perIndex - 1) / perIndex);
  parallelFor(threads, static_cast<std::size_t>(region.size[axis]), static_cast<std::size_t>(grain),
              [&](std::size_t begin, std::size_t end) {
                f(slab(region, axis, static_cast<long>(begin), static_cast<long>(end)));
              });
}

// Clears every pixel of `image` (of `layout`) outside `target`.
template <class T>
void zeroOutside(T* image, const Layout& layout, const Region& target) {
  const long first = target.start[0];
  const long end = first + target.size[0];
  const long width = layout.size[0];
  forEachRow(layout, wholeRegion(layout), 0, [&](long offset, const std::vector<long>& index) {
    T* row = image + offset;
    bool inside = true;
    for (std::size_t axis = 1; axis < index.size(); ++axis) {
      const long i = index[axis];
      inside = inside && i >= target.start[axis] && i < target.start[axis] + target.size[axis];
    }
    if (!inside) {
      std::fill_n(row, width, T(0));
      return;
    }
    std::fill(row, row + first, T(0));
    std::fill(row + end, row + width, T(0));
  });
}

}  // namespace detail
}  // namespace vorn

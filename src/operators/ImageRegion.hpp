// Boxes of pixels in an image's own indices, and the walk over their rows, shared by every
// operator that computes only the region of interest of its output.
#pragma once

#include <algorithm>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vorn/ImageObject.hpp"
#include "vorn/RoiObject.hpp"

namespace vorn {
namespace detail {

// Sizes and buffer strides of an image's axes, axis 0 contiguous.
struct Layout {
  std::vector<long> size;
  std::vector<long> stride;
  long pixels() const;
};

// A box of pixels, in indices of the image.
struct Region {
  std::vector<long> start;
  std::vector<long> size;
  bool empty() const {
    return size.empty() || std::any_of(size.begin(), size.end(), [](long s) { return s <= 0; });
  }
};

Layout layoutOf(const ImageObject& image);
// The number of pixels in `region` (0 when it is empty).
long pixelsOf(const Region& region);
// The whole image.
Region wholeRegion(const Layout& image);

// The bounding box of `roi` clipped to the image; the whole image without one. A box of
// another axis count selects nothing.
Region requestedRegion(const boost::shared_ptr<RoiObject const>& roi, const Layout& image);

// `region` widened by `radius` pixels on both sides along `axis`, clipped to the image.
Region widened(Region region, unsigned axis, long radius, const Layout& image);

// Calls f(offset, index) once for each combination of indices of `region` along the axes
// other than 0 and `skip`; `offset` is the buffer offset of those indices alone, and f walks
// the other two axes itself. Pass skip = 0 to visit every row of the region.
template <class F>
void forEachRow(const Layout& image, const Region& region, unsigned skip, F&& f) {
  const unsigned axes = static_cast<unsigned>(image.size.size());
  std::vector<long> index(region.start);
  long offset = 0;
  for (unsigned axis = 1; axis < axes; ++axis) {
    if (axis != skip) offset += index[axis] * image.stride[axis];
  }
  while (true) {
    f(offset, index);
    unsigned axis = 1;
    for (; axis < axes; ++axis) {
      if (axis == skip) continue;
      offset += image.stride[axis];
      if (++index[axis] < region.start[axis] + region.size[axis]) break;
      index[axis] = region.start[axis];
      offset -= region.size[axis] * image.stride[axis];
    }
    if (axis >= axes) return;
  }
}

// The part of `region` from `begin` to `end` (offsets into it) along `axis`: what one chunk
// of a parallel loop over that axis works on.
Region slab(const Region& region, unsigned axis, long begin, long end);
// The outermost axis of `region` longer than one pixel (0 when none is).
unsigned outermostAxis(const Region& region);

}  // namespace detail
}  // namespace vorn

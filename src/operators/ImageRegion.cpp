#include "ImageRegion.hpp"

#include "vorn/Box.hpp"

namespace vorn {
namespace detail {

long Layout::pixels() const {
  long count = 1;
  for (long s : size) count *= s;
  return size.empty() ? 0 : count;
}

Layout layoutOf(const ImageObject& image) {
  const Box& box = image.getBufferedRegion();
  Layout layout;
  long stride = 1;
  for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
    layout.size.push_back(static_cast<long>(box.m_size[axis]));
    layout.stride.push_back(stride);
    stride *= layout.size.back();
  }
  return layout;
}

long pixelsOf(const Region& region) {
  return region.empty() ? 0 : Layout{region.size, {}}.pixels();
}

Region wholeRegion(const Layout& image) {
  return Region{std::vector<long>(image.size.size(), 0), image.size};
}

Region requestedRegion(const boost::shared_ptr<RoiObject const>& roi, const Layout& image) {
  const std::size_t axes = image.size.size();
  Region region = wholeRegion(image);
  if (!roi) return region;
  const Box& box = roi->getBoundingBox();
  if (box.m_dimension != axes) return Region{region.start, std::vector<long>(axes, 0)};
  for (std::size_t axis = 0; axis < axes; ++axis) {
    const long start = box.m_start[axis];
    const long length = image.size[axis];
    const long first = std::max(0L, start);
    long end = first;
    if (start < length) {
      // Unsigned arithmetic gives length - start exactly, even for a very negative start.
      const unsigned long room =
          static_cast<unsigned long>(length) - static_cast<unsigned long>(start);
      end = box.m_size[axis] >= room ? length : start + static_cast<long>(box.m_size[axis]);
    }
    region.start[axis] = first;
    region.size[axis] = std::max(0L, end - first);
  }
  return region;
}

Region widened(Region region, unsigned axis, long radius, const Layout& image) {
  const long first = std::max(0L, region.start[axis] - radius);
  const long end = std::min(image.size[axis], region.start[axis] + region.size[axis] + radius);
  region.start[axis] = first;
  region.size[axis] = end - first;
  return region;
}

Region slab(const Region& region, unsigned axis, long begin, long end) {
  Region part = region;
  part.start[axis] = region.start[axis] + begin;
  part.size[axis] = end - begin;
  return part;
}

unsigned outermostAxis(const Region& region) {
  for (unsigned axis = static_cast<unsigned>(region.size.size()); axis-- > 1;) {
    if (region.size[axis] > 1) return axis;
  }
  return 0;
}

}  // namespace detail
}  // namespace vorn

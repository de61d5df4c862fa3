#include "RegionOutput.hpp"

#include <algorithm>
#include <cstring>

namespace vorn {
namespace detail {
namespace {

bool holds(const Region& region, const std::vector<long>& index) {
  for (std::size_t axis = 1; axis < index.size(); ++axis) {
    const long i = index[axis];
    if (i < region.start[axis] || i >= region.start[axis] + region.size[axis]) return false;
  }
  return true;
}

// Sets the pixels of `box` outside `target` to 0, a row at a time; pixels are `bytes` wide. A
// target empty along axis 0 leaves the two clears of a row covering all of it.
void clearBetween(char* image, long bytes, const Layout& layout, const Region& box,
                  const Region& target) {
  if (box.empty()) return;
  const long first = box.start[0];
  const long end = first + box.size[0];
  auto clear = [&](long offset, long from, long to) {
    if (from < to)
      std::memset(image + (offset + from) * bytes, 0,
                  static_cast<std::size_t>((to - from) * bytes));
  };
  forEachRow(layout, box, 0, [&](long offset, const std::vector<long>& index) {
    if (!holds(target, index)) return clear(offset, first, end);
    clear(offset, first, std::min(end, target.start[0]));
    clear(offset, std::max(first, target.start[0] + target.size[0]), end);
  });
}

bool describes(const WrittenBox& written, const ImageObject& output, const Layout& layout) {
  return written.buffer == output.getBuffer() && written.type == output.getPointType() &&
         written.start.size() == layout.size.size();
}

}  // namespace

void shapeOutput(ImageObject& output, PixelType::Type type, const Box& box) {
  const bool reusable = output.getManageItsBuffer() && output.getBuffer() != nullptr &&
                        output.getPointType() == type && output.getBufferedRegion() == box;
  if (!reusable) output.Allocate(type, box);
}

void clearOutside(ImageObject& output, const Layout& layout, const Region& target,
                  const Region& scratch, WrittenBox& written) {
  char* image = static_cast<char*>(output.getBuffer());
  const long bytes = static_cast<long>(getSizeOf(output.getPointType()));
  const Region before = describes(written, output, layout) ? Region{written.start, written.size}
                                                           : wholeRegion(layout);
  clearBetween(image, bytes, layout, before, target);
  clearBetween(image, bytes, layout, scratch, target);
  written = WrittenBox{output.getBuffer(), output.getPointType(), target.start, target.size};
}

}  // namespace detail
}  // namespace vorn

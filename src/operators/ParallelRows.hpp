// The row walk of ImageRegion.hpp split over the worker pool, and the output set-up the
// operators that compute only their region of interest share.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"

namespace vorn {
namespace detail {

// About this many pixels per chunk: enough to pay for handing a chunk to a thread.
constexpr long kPixelsPerChunk = 1L << 16;

// Calls row(offset, index, first, width) for every row of `region`, as forEachRow does, the
// pixels [offset + first, offset + first + width) being the row's part of the region. The rows
// are split into slabs along the region's outermost axis whose boundaries depend on the region
// alone, so the result does not depend on `threads`.
template <class Row>
void parallelRows(unsigned threads, const Layout& image, const Region& region, Row&& row) {
  if (region.empty()) return;
  const unsigned axis = outermostAxis(region);
  long slice = 1;
  for (unsigned a = 0; a < axis; ++a) slice *= region.size[a];
  const long grain = std::max(1L, kPixelsPerChunk / slice);
  parallelFor(threads, static_cast<std::size_t>(region.size[axis]),
              static_cast<std::size_t>(grain), [&](std::size_t begin, std::size_t end) {
                const Region part =
                    slab(region, axis, static_cast<long>(begin), static_cast<long>(end));
                forEachRow(image, part, 0, [&](long offset, const std::vector<long>& index) {
                  row(offset, index, part.start[0], part.size[0]);
                });
              });
}

// Makes `output` an image of `type` over `box` and, when only `target` of it will be computed,
// sets the rest to 0 (zeroing the whole buffer first is simpler and rarely slower). An output
// that already owns a buffer of that type and box keeps it: a fresh one costs a page fault per
// 4 KiB on first write, several times the work of a pixel-wise operator.
inline void allocateForRegion(ImageObject& output, PixelType::Type type, const Box& box,
                              const Layout& layout, const Region& target) {
  const bool reusable = output.getManageItsBuffer() && output.getBuffer() != nullptr &&
                        output.getPointType() == type && output.getBufferedRegion() == box;
  if (!reusable) output.Allocate(type, box);
  if (target.size != layout.size) {
    std::memset(output.getBuffer(), 0, getSizeOf(type) * output.getPixelNumber());
  }
}

}  // namespace detail
}  // namespace vorn

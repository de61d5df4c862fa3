// The output of an operator that computes only the region of interest of its output: its
// buffer is kept across updates, and of the pixels outside the region only those an earlier
// update wrote are cleared, so that a slice moving over a large volume costs the slice.
#pragma once

#include "ImageRegion.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {
namespace detail {

using WrittenBox = LocalOperator::WrittenBox;

// Makes `output` an image of `type` over `box`, keeping its buffer when it already has that
// type and box (a fresh buffer costs a page fault per 4 KiB on first write).
void shapeOutput(ImageObject& output, PixelType::Type type, const Box& box);

// After an update wrote `target` of `output` (of `layout`) and, as scratch, `scratch` (a box
// holding `target`), sets every pixel outside `target` to 0 and records in `written` that only
// `target` may hold others. Of a buffer `written` describes, only the box it names and
// `scratch` are cleared; of any other buffer, all of it.
void clearOutside(ImageObject& output, const Layout& layout, const Region& target,
                  const Region& scratch, WrittenBox& written);

}  // namespace detail
}  // namespace vorn

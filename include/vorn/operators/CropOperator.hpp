// vorn/operators/CropOperator.hpp
//
// CropOperator: the box of an image that starts at `start` and spans `size` pixels, in the
// input's pixel type, as slicing an array does; the origin moves by start x spacing so every
// kept pixel stays where it was in space.
//
//   vorn::CropOperator crop;
//   crop.setParameterValue("start", "10,20");  // pixels, axis 0 first; one value for all axes
//   crop.setParameterValue("size", "64,32");   // empty: up to the image's end
//
// Parameters:
//   start   first pixel kept on each axis, from 0; default 0
//   size    pixels kept on each axis, at least 1; empty (default) keeps up to the end
//   threads see Threads.hpp
//
// A box reaching past the image is cut at its end, as a slice is; a start at or past the end
// of an axis is refused, since nothing would be left.
//
// Regions of interest: only the bounding box of the output's region of interest (in the
// output's indices) is copied; the rest of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// A box of an image, placed where it was in space.
class VORN_OPERATORS_API CropOperator : public ProcessObject {
 public:
  CropOperator();
  void generateData() override;
};

}  // namespace vorn

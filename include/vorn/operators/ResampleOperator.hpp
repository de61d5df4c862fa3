// vorn/operators/ResampleOperator.hpp
//
// ResampleOperator: the image on a new grid covering the same physical extent, read by
// nearest-neighbour, linear or cubic B-spline interpolation, in the input's pixel type.
//
//   vorn::ResampleOperator resample;
//   resample.setParameterValue("spacing", "1,1,2.5");  // or size=128,128,64; one value for all
//   resample.setParameterValue("order", "3");
//
// The extent of an axis of n pixels of spacing s is n x s, edge to edge. The new spacing s'
// gives round(n s / s') pixels (at least 1); a new size m gives s' = n s / m. The first pixel's
// edge stays put: origin' = origin - s/2 + s'/2. Output pixel i of an axis sits at
// x = origin' + i s' and reads the input at the fractional index (x - origin) / s, as
// scipy.ndimage.map_coordinates(input, coordinates, order, mode='nearest') reads it: beyond
// the image the edge pixel repeats; order 3 interpolates the B-spline whose samples are the
// pixels (scipy's prefilter, on the image extended by 12 edge pixels as scipy extends it).
// Interpolation runs in double, one axis after the other; towards UCHAR and SHORT outputs the
// result is rounded and clamped as CastOperator does. An input whose spacing is not positive
// is refused.
//
// Parameters:
//   spacing  the new spacing per axis (positive); exactly one of spacing and size is given
//   size     the new number of pixels per axis, 1 to 16777216
//   order    0 (nearest), 1 (linear, default) or 3 (cubic B-spline)
//   threads  see Threads.hpp
//
// Regions of interest: only the bounding box of the output's region of interest (in the
// output's indices) is interpolated, exactly as the whole image would give it there; the rest
// of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// The image on a new grid of the same extent, interpolated.
class VORN_OPERATORS_API ResampleOperator : public ProcessObject {
 public:
  ResampleOperator();
  void generateData() override;
};

}  // namespace vorn

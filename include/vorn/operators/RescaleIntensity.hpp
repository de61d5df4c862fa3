// vorn/operators/RescaleIntensity.hpp
//
// RescaleIntensity: maps [in_min, in_max] linearly onto [out_min, out_max], clipping values
// outside the input interval to its ends, as skimage.exposure.rescale_intensity does.
//
//   vorn::RescaleIntensity rescale;
//   rescale.setParameterValue("in_min", "");     // empty: the image's smallest value
//   rescale.setParameterValue("out_max", "255");
//   rescale.setParameterValue("type", "uchar");
//
// Parameters:
//   in_min, in_max    the input interval, in pixel values; empty (default): the image's range,
//                     NaN and infinite pixels left out (infinities clip to its ends).
//                     in_min > in_max is refused.
//   out_min, out_max  the output interval; default 0 and 1; out_min > out_max inverts
//   type              the output's pixel type: float (default), uchar or short, rounded and
//                     clamped as CastOperator does
//   threads           see Threads.hpp
//
// Float images are mapped in float arithmetic, UCHAR and SHORT ones in double, as NumPy does
// for the reference. When in_min equals in_max every pixel becomes that value clamped to the
// output interval (the reference's choice). NaN pixels stay NaN (0 in an integer output).
//
// Regions of interest: the default input interval is the whole image's range; then only the
// bounding box of the output's region of interest is mapped and the rest of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// Linear rescaling of an interval of values onto another, clipped.
class VORN_OPERATORS_API RescaleIntensity : public ProcessObject {
 public:
  RescaleIntensity();
  void generateData() override;
};

}  // namespace vorn

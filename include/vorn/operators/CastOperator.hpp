// vorn/operators/CastOperator.hpp
//
// CastOperator: converts an image to another pixel type, keeping its box, spacing and origin.
//
//   vorn::CastOperator cast;
//   cast.setParameterValue("type", "uchar");  // "uchar", "short" or "float" (the default)
//
// Towards an integer type each value is rounded half away from zero and clamped to the
// target's range; NaN becomes 0 and infinities clamp. Towards float every value is exact.
// The input image is never modified; an unknown type name fails the update and leaves the
// output as it was.
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed and the rest of the output is 0. The output's buffer is
// kept across updates; of it only what the last update wrote outside the new box is cleared.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Converts an image to another pixel type, rounding and clamping.
class VORN_OPERATORS_API CastOperator : public ProcessObject, public LocalOperator {
 public:
  CastOperator();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

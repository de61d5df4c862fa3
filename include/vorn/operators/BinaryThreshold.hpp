// vorn/operators/BinaryThreshold.hpp
//
// BinaryThreshold: a UCHAR image that is `inside` where lower <= value <= upper and `outside`
// everywhere else (NaN included).
//
//   vorn::BinaryThreshold threshold;
//   threshold.setParameterValue("lower", "100");  // empty: the input type's lowest value
//   threshold.setParameterValue("upper", "");     // empty: its highest value (+inf for float)
//   threshold.setParameterValue("inside", "255"); // default 1; "outside" defaults to 0
//
// Both bounds are inclusive and compared exactly with the pixel values. lower > upper is an
// empty interval: every pixel is outside. inside and outside are integers from 0 to 255.
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed and the rest of the output is 0. The output's buffer is
// kept across updates; of it only what the last update wrote outside the new box is cleared.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// A UCHAR image: inside where lower <= value <= upper, outside elsewhere.
class VORN_OPERATORS_API BinaryThreshold : public ProcessObject, public LocalOperator {
 public:
  BinaryThreshold();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

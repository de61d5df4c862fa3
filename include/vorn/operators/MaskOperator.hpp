// vorn/operators/MaskOperator.hpp
//
// MaskOperator: a copy of the image on input 0 in which every pixel whose byte in the UCHAR
// mask on input 1 is 0 becomes 0; the other pixels keep their values exactly.
//
// The mask must hold as many pixels as the image (its own box and geometry are not compared).
// A mask of another pixel count or another type than UCHAR fails the update before the output
// is touched. Neither input is modified.
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed and the rest of the output is 0. The output's buffer is
// kept across updates; of it only what the last update wrote outside the new box is cleared.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Input 0 with every pixel outside the mask on input 1 set to zero.
class VORN_OPERATORS_API MaskOperator : public ProcessObject, public LocalOperator {
 public:
  MaskOperator();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

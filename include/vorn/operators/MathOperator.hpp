// vorn/operators/MathOperator.hpp
//
// MathOperator: pixel-wise arithmetic, of two images of the same size or of one image and a
// number, computed in float as NumPy computes on float32 arrays.
//
//   vorn::MathOperator sum(2);           // two inputs: input 0 op input 1
//   sum.setParameterValue("op", "max");
//   vorn::MathOperator scale;            // one input: input 0 op value, or op of input 0
//   scale.setParameterValue("op", "mul");
//   scale.setParameterValue("value", "0.5");
//
// Parameters:
//   op      add, sub, mul, div, min, max (of two operands) or abs, sqrt, log, exp, neg (of one
//           image alone); default add
//   value   the second operand of a binary op on one image, a number; empty by default and
//           refused with two images or a unary op
//   type    the output's pixel type: float (default), uchar or short; towards an integer type
//           the float result is rounded and clamped as CastOperator does
//   threads see Threads.hpp
//
// Inputs of any pixel type are read as float. IEEE rules hold throughout: division by zero
// gives an infinity or NaN, sqrt and log of a negative NaN, log(0) -inf; min and max of a NaN
// are NaN, as numpy.minimum and numpy.maximum. The output has input 0's box, spacing and origin.
// Two images of different sizes are refused before anything changes.
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed and the rest of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Pixel-wise arithmetic of one image and a number, or of two images.
class VORN_OPERATORS_API MathOperator : public ProcessObject, public LocalOperator {
 public:
  // `images` input ports: 1 (an image and `value`, or a unary op) or 2 (two images).
  explicit MathOperator(unsigned int images = 1);
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;

 private:
  unsigned int m_images;
};

}  // namespace vorn

// vorn/operators/FlipOperator.hpp
//
// FlipOperator and PermuteAxes: the same pixels in another order, in the input's pixel type.
//
//   vorn::FlipOperator flip;
//   flip.setParameterValue("axes", "0");      // empty (default): every axis, as numpy.flip
//   vorn::PermuteAxes permute;
//   permute.setParameterValue("order", "2,0,1");  // output axis k is input axis order[k]
//
// FlipOperator reverses the order of the pixels along each listed axis (numpy.flip). The grid
// stays where it was: spacing and origin are unchanged, the content is mirrored in it.
//   axes    axes to reverse, each once; empty (default) reverses them all
//
// PermuteAxes reorders the axes (numpy.transpose with the axes counted from the other end:
// vorn's axis 0 is NumPy's last). Spacing and origin follow their axes.
//   order   a permutation of 0 .. N-1; empty (default) reverses the axes
//
// Both take `threads` (see Threads.hpp) and compute only the bounding box of the output's
// region of interest (in the output's indices), leaving the rest of the output 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// Reverses the pixels along some axes.
class VORN_OPERATORS_API FlipOperator : public ProcessObject {
 public:
  FlipOperator();
  void generateData() override;
};

// Reorders the axes of an image.
class VORN_OPERATORS_API PermuteAxes : public ProcessObject {
 public:
  PermuteAxes();
  void generateData() override;
};

}  // namespace vorn

// vorn/operators/PadOperator.hpp
//
// PadOperator: an image grown by `before` pixels at the start and `after` pixels at the end of
// each axis, in the input's pixel type, as numpy.pad does; the origin moves back by
// before x spacing so the input's pixels stay where they were in space.
//
//   vorn::PadOperator pad;
//   pad.setParameterValue("before", "2,0");  // pixels, axis 0 first; one value for all axes
//   pad.setParameterValue("after", "2");
//   pad.setParameterValue("mode", "reflect");
//
// Parameters:
//   before, after  pixels added on each axis, 0 to 1000000; default 0
//   mode           constant (default): `value`; edge: the edge pixel repeats; reflect: the
//                  image mirrored about its edge pixel, which is not repeated (numpy's
//                  'reflect', d c b | a b c d | c b a, not its 'symmetric'); pads wider than the
//                  image continue the mirroring, as numpy does
//   value          the constant, converted to the pixel type as CastOperator does; default 0
//   threads        see Threads.hpp
//
// Regions of interest: only the bounding box of the output's region of interest (in the
// output's indices) is filled; the rest of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// An image grown at both ends of each axis: a constant, the edge, or a mirror image.
class VORN_OPERATORS_API PadOperator : public ProcessObject {
 public:
  PadOperator();
  void generateData() override;
};

}  // namespace vorn

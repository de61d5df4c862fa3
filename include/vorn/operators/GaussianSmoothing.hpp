// vorn/operators/GaussianSmoothing.hpp
//
// GaussianSmoothing: separable Gaussian smoothing of an N-dimensional image into a FLOAT image.
//
//   vorn::GaussianSmoothing smooth;
//   smooth.setParameterValue("sigma", "2,2,0.5");  // in pixels, axis 0 first; one value for all
//
// The kernel of each axis has radius int(4 * sigma + 0.5) and normalised weights
// exp(-x^2 / (2 sigma^2)); beyond the image the edge pixel repeats. A sigma of 0 leaves its
// axis alone. UCHAR and SHORT inputs are smoothed as float. The `threads` parameter (empty:
// vorn::setThreadCount) sets how many threads share each pass; any count gives the same bits.
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed, exactly as the whole image would give it there, and the
// rest of the output is 0. A bounding box with another number of axes than the image, or one
// entirely outside it, yields an output of zeros. The passes run from the last axis to the
// first, whatever the box (another order rounds differently), so a slice across the last axis
// smooths only its halo along that axis; of an output kept across updates only what the last
// update wrote outside the box is cleared.
//
// Sharp edges: sigma above 1e6 pixels is refused; a bad sigma fails the update and leaves the
// output as it was. No temporary image is made: the passes after the first work in place in
// the output, and an output that already holds a FLOAT image of the input's box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Gaussian smoothing into a float image, by separable passes.
class VORN_OPERATORS_API GaussianSmoothing : public ProcessObject, public LocalOperator {
 public:
  GaussianSmoothing();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

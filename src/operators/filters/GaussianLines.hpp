// The separable line pass the Gaussian family shares: smoothing, its derivatives and the
// Laplacian are each a product of 1-D correlations along the axes, one kernel per axis.
#pragma once

#include <string>
#include <vector>

#include "ImageRegion.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/ProcessObject.hpp"

namespace vorn {
namespace detail {

// One axis's kernel. weights[0] is the centre's weight, weights[k] that of the samples k
// pixels away: their sum for an even kernel, (after - before) for an odd one.
struct LineKernel {
  std::vector<float> weights;
  bool odd = false;
  long radius() const { return static_cast<long>(weights.size()) - 1; }
  bool identity() const { return !odd && weights.size() == 1 && weights[0] == 1.0f; }
};

// The sampled derivative of order 0, 1 or 2 of a normalised Gaussian of `sigma` pixels,
// radius int(4 sigma + 0.5), for an axis of `length` pixels (taps beyond the line folded into
// its last one). Order 0 with sigma 0 is the identity.
LineKernel gaussianKernel(double sigma, unsigned order, long length);

// The `sigma` parameter: one value for every axis or one per axis, each from 0 (from above 0
// when `positive`) to 1e6; anything else throws through throwBadParameter.
std::vector<double> sigmaPerAxis(ProcessObject& op, std::size_t axes, bool positive);

// The kernels' radii for the `sigma` parameter: the pixels a pass reads beyond a box per axis.
std::vector<long> gaussianHalo(ProcessObject& op, std::size_t axes, bool positive);

// Writes into `output` (a float buffer of the input's layout), over `target`, the input
// correlated along each axis with kernels[axis]. The passes work in place in `output` and
// leave scratch values in it around `target`, within the box answered; `threads` share each
// pass.
Region correlateSeparable(const ImageObject& input, const std::vector<LineKernel>& kernels,
                          const Region& target, float* output, unsigned threads);

}  // namespace detail
}  // namespace vorn

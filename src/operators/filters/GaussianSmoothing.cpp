#include "vorn/operators/GaussianSmoothing.hpp"

#include <algorithm>
#include <vector>

#include "GaussianLines.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "ParallelRegion.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {

GaussianSmoothing::GaussianSmoothing() {
  setName("GaussianSmoothing");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("sigma", "1"));
  addParameter(detail::threadsParameter());
}

void GaussianSmoothing::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*input);
  const std::vector<double> sigmas = detail::sigmaPerAxis(*this, layout.size.size(), false);
  const unsigned threads = detail::threadsFor(*this);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::prepareFloatOutput(*input, *output);
  float* pixels = static_cast<float*>(output->getBuffer());
  if (target.empty()) {
    std::fill_n(pixels, output->getPixelNumber(), 0.0f);
    return;
  }
  std::vector<detail::LineKernel> kernels;
  for (unsigned axis = 0; axis < sigmas.size(); ++axis) {
    kernels.push_back(detail::gaussianKernel(sigmas[axis], 0, layout.size[axis]));
  }
  detail::correlateSeparable(*input, kernels, target, pixels, threads);
  if (target.size != layout.size) detail::zeroOutside(pixels, layout, target);
}

std::vector<long> GaussianSmoothing::inputHalo(unsigned int axes) {
  return detail::gaussianHalo(*this, axes, false);
}

}  // namespace vorn

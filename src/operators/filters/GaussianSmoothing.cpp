#include "vorn/operators/GaussianSmoothing.hpp"

#include <algorithm>
#include <vector>

#include "GaussianLines.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "RegionOutput.hpp"
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
  detail::shapeOutput(*output, PixelType::FLOAT, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  detail::Region scratch = target;
  if (!target.empty()) {
    std::vector<detail::LineKernel> kernels;
    for (unsigned axis = 0; axis < sigmas.size(); ++axis) {
      kernels.push_back(detail::gaussianKernel(sigmas[axis], 0, layout.size[axis]));
    }
    scratch = detail::correlateSeparable(*input, kernels, target,
                                         static_cast<float*>(output->getBuffer()), threads);
  }
  detail::clearOutside(*output, layout, target, scratch, m_written);
}

std::vector<long> GaussianSmoothing::inputHalo(unsigned int axes) {
  return detail::gaussianHalo(*this, axes, false);
}

}  // namespace vorn

#include "vorn/operators/GaussianDerivatives.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "GaussianLines.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "ParallelRegion.hpp"
#include "RegionOutput.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::Layout;
using detail::Region;

void declare(ProcessObject& op, const char* name) {
  op.setName(name);
  op.addInput("ImageObject");
  op.addOutput("ImageObject");
  op.addParameter(new Parameter("sigma", "1"));
  op.addParameter(detail::threadsParameter());
}

// How each axis's derivative joins the output: the first one sets it, later ones add to it.
enum class Combine { Square, Add };

// Over `target`: out = (or +=) d or d^2, d being the derivative of order `order` along each
// axis in turn, the other axes smoothed. Each derivative after the first goes through
// `scratch`, a float buffer of the image's size.
void sumDerivatives(ProcessObject& op, LocalOperator::WrittenBox& cleared, unsigned order,
                    Combine combine) {
  const detail::ImagePtr input = detail::inputImage(op, 0);
  const detail::ImagePtr output = detail::outputImage(op, 0);
  const Layout layout = detail::layoutOf(*input);
  const std::vector<double> sigmas = detail::sigmaPerAxis(op, layout.size.size(), true);
  const unsigned threads = detail::threadsFor(op);
  const Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::shapeOutput(*output, PixelType::FLOAT, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  float* out = static_cast<float*>(output->getBuffer());
  Region written = target;
  if (target.empty()) return detail::clearOutside(*output, layout, target, target, cleared);
  std::vector<float> scratch;
  const long first = target.start[0];
  const long width = target.size[0];
  for (unsigned axis = 0; axis < sigmas.size(); ++axis) {
    std::vector<detail::LineKernel> kernels;
    for (unsigned a = 0; a < sigmas.size(); ++a) {
      kernels.push_back(detail::gaussianKernel(sigmas[a], a == axis ? order : 0, layout.size[a]));
    }
    if (axis == 1) scratch.resize(static_cast<std::size_t>(layout.pixels()));
    float* derivative = axis == 0 ? out : scratch.data();
    const Region box = detail::correlateSeparable(*input, kernels, target, derivative, threads);
    if (axis == 0) written = box;
    detail::parallelSlabs(threads, target, -1u, [&](const Region& part) {
      detail::forEachRow(layout, part, 0, [&](long offset, const std::vector<long>&) {
        float* row = out + offset + first;
        const float* d = derivative + offset + first;
        for (long i = 0; i < width; ++i) {
          const float term = combine == Combine::Square ? d[i] * d[i] : d[i];
          row[i] = axis == 0 ? term : row[i] + term;
        }
      });
    });
  }
  if (combine == Combine::Square) {
    detail::parallelSlabs(threads, target, -1u, [&](const Region& part) {
      detail::forEachRow(layout, part, 0, [&](long offset, const std::vector<long>&) {
        float* row = out + offset + first;
        for (long i = 0; i < width; ++i) row[i] = std::sqrt(row[i]);
      });
    });
  }
  detail::clearOutside(*output, layout, target, written, cleared);
}

}  // namespace

GradientMagnitude::GradientMagnitude() { declare(*this, "GradientMagnitude"); }

void GradientMagnitude::generateData() { sumDerivatives(*this, m_written, 1, Combine::Square); }

LaplacianOfGaussian::LaplacianOfGaussian() { declare(*this, "LaplacianOfGaussian"); }

void LaplacianOfGaussian::generateData() { sumDerivatives(*this, m_written, 2, Combine::Add); }

std::vector<long> GradientMagnitude::inputHalo(unsigned int axes) {
  return detail::gaussianHalo(*this, axes, true);
}

std::vector<long> LaplacianOfGaussian::inputHalo(unsigned int axes) {
  return detail::gaussianHalo(*this, axes, true);
}

}  // namespace vorn

#include "vorn/operators/CastOperator.hpp"

#include "OperatorSupport.hpp"
#include "ParallelRows.hpp"
#include "PixelConversion.hpp"
#include "RegionOutput.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

template <class From, class To>
void convertAll(const From* in, To* out, long count) {
  for (long k = 0; k < count; ++k) out[k] = detail::convertPixel<To>(in[k]);
}

}  // namespace

CastOperator::CastOperator() {
  setName("CastOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("type", "float"));
  addParameter(detail::threadsParameter());
}

void CastOperator::generateData() {
  const PixelType::Type type = detail::pixelTypeParameter(*this, "type");
  const unsigned int threads = detail::threadsFor(*this);
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*input);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::shapeOutput(*output, type, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  const void* in = static_cast<const ImageObject&>(*input).getBuffer();
  void* out = output->getBuffer();
  detail::dispatchPixelType(input->getPointType(), [&](auto from) {
    using From = typename decltype(from)::type;
    detail::dispatchPixelType(type, [&](auto to) {
      using To = typename decltype(to)::type;
      detail::parallelRows(threads, layout, target,
                           [&](long offset, const std::vector<long>&, long first, long width) {
                             convertAll(static_cast<const From*>(in) + offset + first,
                                        static_cast<To*>(out) + offset + first, width);
                           });
    });
  });
  detail::clearOutside(*output, layout, target, target, m_written);
}

std::vector<long> CastOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

#include "vorn/operators/CastOperator.hpp"

#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "PixelConversion.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

template <class From, class To>
void convertAll(const From* in, To* out, unsigned long count) {
  for (unsigned long k = 0; k < count; ++k) out[k] = detail::convertPixel<To>(in[k]);
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
  output->Allocate(type, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  const unsigned long count = input->getPixelNumber();
  const void* in = static_cast<const ImageObject&>(*input).getBuffer();
  void* out = output->getBuffer();
  detail::dispatchPixelType(input->getPointType(), [&](auto from) {
    using From = typename decltype(from)::type;
    detail::dispatchPixelType(type, [&](auto to) {
      using To = typename decltype(to)::type;
      detail::parallelFor(threads, count, detail::kGrainPixels,
                          [&](std::size_t begin, std::size_t end) {
                            convertAll(static_cast<const From*>(in) + begin,
                                       static_cast<To*>(out) + begin, end - begin);
                          });
    });
  });
}

std::vector<long> CastOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

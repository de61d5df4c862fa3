#include "vorn/operators/CastOperator.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>

#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

PixelType::Type targetType(ProcessObject& op) {
  const std::string& name = op.getParameterValue("type");
  if (name == "uchar") return PixelType::UCHAR;
  if (name == "short") return PixelType::SHORT;
  if (name == "float") return PixelType::FLOAT;
  detail::throwBadParameter(op, "type", name, "expected uchar, short or float");
}

// Every value of the three pixel types is exact in a double, and so is its sum with 0.5:
// truncating that sum rounds half away from zero exactly. Clamping before the truncation gives
// the same result (the bounds are integers) and lets the truncation be the conversion itself;
// written without calls or branches, the loop vectorises.
template <class To>
To convert(double value) {
  if constexpr (std::is_same_v<To, float>) {
    return static_cast<float>(value);
  } else {
    const double lowest = std::numeric_limits<To>::lowest();
    const double highest = std::numeric_limits<To>::max();
    const double away = std::clamp(value + std::copysign(0.5, value), lowest, highest);
    return std::isnan(value) ? To(0) : static_cast<To>(static_cast<int>(away));
  }
}

template <class From, class To>
void convertAll(const From* in, To* out, unsigned long count) {
  for (unsigned long k = 0; k < count; ++k) out[k] = convert<To>(in[k]);
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
  const PixelType::Type type = targetType(*this);
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

}  // namespace vorn

#include "vorn/operators/RescaleIntensity.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "IntensityRange.hpp"
#include "ParallelRows.hpp"
#include "PixelConversion.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

struct Mapping {
  std::optional<double> inMin;
  std::optional<double> inMax;
  double outMin;
  double outMax;
};

Mapping readMapping(ProcessObject& op) {
  Mapping m{detail::optionalNumberParameter(op, "in_min"),
            detail::optionalNumberParameter(op, "in_max"), detail::numberParameter(op, "out_min"),
            detail::numberParameter(op, "out_max")};
  if (m.inMin && m.inMax && *m.inMin > *m.inMax) {
    detail::throwBadParameter(op, "in_max", op.getParameterValue("in_max"), "below in_min");
  }
  return m;
}

// The reference's arithmetic step by step: clip, subtract, divide, scale, shift, each rounded
// to C (float for float images, double for the integer ones) as NumPy rounds them.
template <class T, class Out>
void mapRow(const T* in, Out* out, long n, const Mapping& m) {
  using C = std::conditional_t<std::is_same_v<T, float>, float, double>;
  const C low = static_cast<C>(*m.inMin);
  const C high = static_cast<C>(*m.inMax);
  const C width = static_cast<C>(*m.inMax - *m.inMin);
  const C scale = static_cast<C>(m.outMax - m.outMin);
  const C shift = static_cast<C>(m.outMin);
  const C outLow = static_cast<C>(std::min(m.outMin, m.outMax));
  const C outHigh = static_cast<C>(std::max(m.outMin, m.outMax));
  for (long i = 0; i < n; ++i) {
    const C clipped = std::clamp(static_cast<C>(in[i]), low, high);
    const C value =
        width != 0 ? (clipped - low) / width * scale + shift : std::clamp(clipped, outLow, outHigh);
    out[i] = detail::convertPixel<Out>(value);
  }
}

}  // namespace

RescaleIntensity::RescaleIntensity() {
  setName("RescaleIntensity");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("in_min", ""));
  addParameter(new Parameter("in_max", ""));
  addParameter(new Parameter("out_min", "0"));
  addParameter(new Parameter("out_max", "1"));
  addParameter(new Parameter("type", "float"));
  addParameter(detail::threadsParameter());
}

void RescaleIntensity::generateData() {
  Mapping mapping = readMapping(*this);
  const PixelType::Type type = detail::pixelTypeParameter(*this, "type");
  const unsigned threads = detail::threadsFor(*this);
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  if (!mapping.inMin || !mapping.inMax) {
    detail::ValueRange range = detail::valueRange(*input, threads, true);
    if (range.empty()) range = {0.0, 0.0};
    if (!mapping.inMin) mapping.inMin = std::min(range.min, mapping.inMax.value_or(range.min));
    if (!mapping.inMax) mapping.inMax = std::max(range.max, *mapping.inMin);
  }
  const detail::Layout layout = detail::layoutOf(*input);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::allocateForRegion(*output, type, input->getBufferedRegion(), layout, target);
  detail::copyGeometry(*input, *output);
  const ImageObject& in = *input;
  detail::dispatchPixelType(in.getPointType(), [&](auto from) {
    using T = typename decltype(from)::type;
    detail::dispatchPixelType(type, [&](auto to) {
      using Out = typename decltype(to)::type;
      const T* pixels = static_cast<const T*>(in.getBuffer());
      Out* result = static_cast<Out*>(output->getBuffer());
      detail::parallelRows(threads, layout, target,
                           [&](long offset, const std::vector<long>&, long begin, long width) {
                             mapRow(pixels + offset + begin, result + offset + begin, width,
                                    mapping);
                           });
    });
  });
}

}  // namespace vorn

#include "vorn/operators/BinaryThreshold.hpp"

#include <charconv>
#include <limits>
#include <optional>
#include <string>

#include "OperatorSupport.hpp"
#include "ParallelRows.hpp"
#include "RegionOutput.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

unsigned char byteParameter(ProcessObject& op, const std::string& name) {
  const std::string& value = op.getParameterValue(name);
  int number = -1;
  const char* last = value.data() + value.size();
  const std::from_chars_result result = std::from_chars(value.data(), last, number);
  if (value.empty() || result.ec != std::errc() || result.ptr != last || number < 0 ||
      number > 255) {
    detail::throwBadParameter(op, name, value, "expected an integer from 0 to 255");
  }
  return static_cast<unsigned char>(number);
}

// Compared as doubles, which hold every pixel value and every bound exactly; NaN fails both
// comparisons and so lands outside.
template <class T>
void threshold(const T* in, unsigned char* out, long count, double lower, double upper,
               unsigned char inside, unsigned char outside) {
  for (long k = 0; k < count; ++k) {
    const double value = in[k];
    out[k] = lower <= value && value <= upper ? inside : outside;
  }
}

}  // namespace

BinaryThreshold::BinaryThreshold() {
  setName("BinaryThreshold");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("lower", ""));
  addParameter(new Parameter("upper", ""));
  addParameter(new Parameter("inside", "1"));
  addParameter(new Parameter("outside", "0"));
  addParameter(detail::threadsParameter());
}

void BinaryThreshold::generateData() {
  const std::optional<double> lower = detail::optionalNumberParameter(*this, "lower");
  const std::optional<double> upper = detail::optionalNumberParameter(*this, "upper");
  const unsigned char inside = byteParameter(*this, "inside");
  const unsigned char outside = byteParameter(*this, "outside");
  const unsigned int threads = detail::threadsFor(*this);
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*input);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::dispatchPixelType(input->getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    // -inf/+inf for float; the other types' own range, which holds all their values anyway.
    const double lowest = std::numeric_limits<T>::has_infinity ? -std::numeric_limits<T>::infinity()
                                                               : std::numeric_limits<T>::lowest();
    const double highest = std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity()
                                                                : std::numeric_limits<T>::max();
    detail::shapeOutput(*output, PixelType::UCHAR, input->getBufferedRegion());
    detail::copyGeometry(*input, *output);
    const T* in = static_cast<const T*>(static_cast<const ImageObject&>(*input).getBuffer());
    auto* out = static_cast<unsigned char*>(output->getBuffer());
    detail::parallelRows(threads, layout, target,
                         [&](long offset, const std::vector<long>&, long first, long width) {
                           threshold(in + offset + first, out + offset + first, width,
                                     lower.value_or(lowest), upper.value_or(highest), inside,
                                     outside);
                         });
  });
  detail::clearOutside(*output, layout, target, target, m_written);
}

std::vector<long> BinaryThreshold::inputHalo(unsigned int axes) {
  return std::vector<long>(axes, 0);
}

}  // namespace vorn

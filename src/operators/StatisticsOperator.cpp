#include "vorn/operators/StatisticsOperator.hpp"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <limits>

#include "OperatorSupport.hpp"

namespace vorn {
namespace {

// Neumaier's compensated sum: the rounding error of each addition is kept apart and added
// back at the end, so millions of pixels sum as if in much wider arithmetic.
class CompensatedSum {
 public:
  void add(double value) {
    const double next = m_sum + value;
    m_error += std::abs(m_sum) >= std::abs(value) ? (m_sum - next) + value : (value - next) + m_sum;
    m_sum = next;
  }
  // Past an infinity the error term is inf - inf, a NaN: the plain sum is then the answer.
  double value() const { return std::isfinite(m_sum) ? m_sum + m_error : m_sum; }

 private:
  double m_sum = 0.0;
  double m_error = 0.0;
};

// Two passes: the mean first, then the squared deviations from it, which does not lose the
// variance to cancellation the way sum(x^2) - n * mean^2 does.
template <class T>
ImageStatistics statisticsOf(const T* pixels, unsigned long count) {
  ImageStatistics s;
  s.min = std::numeric_limits<double>::infinity();
  s.max = -s.min;
  CompensatedSum sum;
  for (unsigned long k = 0; k < count; ++k) {
    const double value = pixels[k];
    if (std::isnan(value)) continue;
    ++s.count;
    s.min = std::min(s.min, value);
    s.max = std::max(s.max, value);
    sum.add(value);
  }
  s.sum = sum.value();
  if (s.count == 0) {
    s.min = s.max = s.mean = s.stddev = std::numeric_limits<double>::quiet_NaN();
    return s;
  }
  s.mean = s.sum / static_cast<double>(s.count);
  if (!std::isfinite(s.mean)) {  // an infinite pixel: no finite spread around it
    s.stddev = std::numeric_limits<double>::quiet_NaN();
    return s;
  }
  CompensatedSum squares;
  for (unsigned long k = 0; k < count; ++k) {
    const double deviation = pixels[k] - s.mean;
    if (!std::isnan(deviation)) squares.add(deviation * deviation);
  }
  s.stddev = std::sqrt(squares.value() / static_cast<double>(s.count));
  return s;
}

}  // namespace

StatisticsOperator::StatisticsOperator() : m_stream(&std::cout) {
  setName("StatisticsOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
}

void StatisticsOperator::setStream(std::ostream* stream) { m_stream = stream; }

const ImageStatistics& StatisticsOperator::getStatistics() const { return m_statistics; }

void StatisticsOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const ImageObject& image = *input;
  const ImageStatistics statistics = detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    return statisticsOf(static_cast<const T*>(image.getBuffer()), image.getPixelNumber());
  });
  output->import(input.get(), this);
  m_statistics = statistics;
  if (m_stream == nullptr) return;
  std::ostream& os = *m_stream;
  const std::ios_base::fmtflags flags = os.flags();
  const std::streamsize precision = os.precision(10);
  if (m_stream == &std::cout) os << '\n';
  os.unsetf(std::ios_base::floatfield);
  os << getName() << ": count=" << statistics.count << " min=" << statistics.min
     << " max=" << statistics.max << " mean=" << statistics.mean << " stddev=" << statistics.stddev
     << " sum=" << statistics.sum << std::endl;
  os.precision(precision);
  os.flags(flags);
}

}  // namespace vorn

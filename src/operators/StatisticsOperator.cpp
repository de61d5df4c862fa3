#include "vorn/operators/StatisticsOperator.hpp"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <limits>

#include "OperatorSupport.hpp"
#include "Parallel.hpp"

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
  // Another compensated sum, its error term included unless it is past an infinity.
  void add(const CompensatedSum& other) {
    add(other.m_sum);
    if (std::isfinite(other.m_sum)) add(other.m_error);
  }
  // Past an infinity the error term is inf - inf, a NaN: the plain sum is then the answer.
  double value() const { return std::isfinite(m_sum) ? m_sum + m_error : m_sum; }

 private:
  double m_sum = 0.0;
  double m_error = 0.0;
};

// Pixel k goes to lane k % kLanes: each lane has its own sums, so the additions of neighbouring
// pixels do not wait on each other and the compiler may vectorise them. A NaN adds nothing and
// counts for nothing (min and max already pass over it).
constexpr unsigned long kLanes = 8;

struct Lanes {
  double min[kLanes];
  double max[kLanes];
  unsigned long count[kLanes] = {};
  CompensatedSum sum[kLanes];

  template <class T>
  void add(const T* pixels) {
    for (unsigned long lane = 0; lane < kLanes; ++lane) {
      const double value = pixels[lane];
      const bool number = !std::isnan(value);
      count[lane] += number;
      min[lane] = std::min(min[lane], value);
      max[lane] = std::max(max[lane], value);
      sum[lane].add(number ? value : 0.0);
    }
  }
};

template <class T>
void addRange(const T* pixels, unsigned long count, ImageStatistics& s, CompensatedSum& total) {
  Lanes lanes;
  std::fill(lanes.min, lanes.min + kLanes, s.min);
  std::fill(lanes.max, lanes.max + kLanes, s.max);
  const unsigned long whole = count - count % kLanes;
  for (unsigned long k = 0; k < whole; k += kLanes) lanes.add(pixels + k);
  for (unsigned long lane = 0; lane < kLanes; ++lane) {
    s.count += lanes.count[lane];
    s.min = std::min(s.min, lanes.min[lane]);
    s.max = std::max(s.max, lanes.max[lane]);
    total.add(lanes.sum[lane]);
  }
  for (unsigned long k = whole; k < count; ++k) {
    const double value = pixels[k];
    if (std::isnan(value)) continue;
    ++s.count;
    s.min = std::min(s.min, value);
    s.max = std::max(s.max, value);
    total.add(value);
  }
}

// What a run of pixels adds up to; runs combine in a fixed order.
struct Partial {
  ImageStatistics s;
  CompensatedSum sum;
  Partial() {
    s.min = std::numeric_limits<double>::infinity();
    s.max = -s.min;
  }
  static Partial combine(Partial a, const Partial& b) {
    a.s.count += b.s.count;
    a.s.min = std::min(a.s.min, b.s.min);
    a.s.max = std::max(a.s.max, b.s.max);
    a.sum.add(b.sum);
    return a;
  }
};

// The sum of squared deviations from `mean`, NaNs left out, in lanes as above.
template <class T>
CompensatedSum squaredDeviations(const T* pixels, unsigned long count, double mean) {
  CompensatedSum lanes[kLanes];
  const unsigned long whole = count - count % kLanes;
  for (unsigned long k = 0; k < whole; k += kLanes) {
    for (unsigned long lane = 0; lane < kLanes; ++lane) {
      const double deviation = pixels[k + lane] - mean;
      lanes[lane].add(std::isnan(deviation) ? 0.0 : deviation * deviation);
    }
  }
  CompensatedSum total;
  for (const CompensatedSum& lane : lanes) total.add(lane);
  for (unsigned long k = whole; k < count; ++k) {
    const double deviation = pixels[k] - mean;
    if (!std::isnan(deviation)) total.add(deviation * deviation);
  }
  return total;
}

// Two passes: the mean first, then the squared deviations from it, which does not lose the
// variance to cancellation the way sum(x^2) - n * mean^2 does. Each pass cuts the pixels into
// the same chunks whatever the thread count and adds the chunks' sums up in order, so every
// count gives the same bits. The first pass also copies each chunk to the output.
template <class T>
ImageStatistics statisticsOf(unsigned int threads, const T* pixels, unsigned long count, T* copy) {
  const Partial whole = detail::parallelReduce(
      threads, count, detail::kGrainPixels, Partial(),
      [&](std::size_t begin, std::size_t end) {
        std::copy(pixels + begin, pixels + end, copy + begin);
        Partial part;
        addRange(pixels + begin, end - begin, part.s, part.sum);
        return part;
      },
      &Partial::combine);
  ImageStatistics s = whole.s;
  s.sum = whole.sum.value();
  if (s.count == 0) {
    s.min = s.max = s.mean = s.stddev = std::numeric_limits<double>::quiet_NaN();
    return s;
  }
  s.mean = s.sum / static_cast<double>(s.count);
  if (!std::isfinite(s.mean)) {  // an infinite pixel: no finite spread around it
    s.stddev = std::numeric_limits<double>::quiet_NaN();
    return s;
  }
  const CompensatedSum squares = detail::parallelReduce(
      threads, count, detail::kGrainPixels, CompensatedSum(),
      [&](std::size_t begin, std::size_t end) {
        return squaredDeviations(pixels + begin, end - begin, s.mean);
      },
      [](CompensatedSum a, const CompensatedSum& b) {
        a.add(b);
        return a;
      });
  s.stddev = std::sqrt(squares.value() / static_cast<double>(s.count));
  return s;
}

}  // namespace

StatisticsOperator::StatisticsOperator() : m_stream(&std::cout) {
  setName("StatisticsOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(detail::threadsParameter());
}

void StatisticsOperator::setStream(std::ostream* stream) { m_stream = stream; }

const ImageStatistics& StatisticsOperator::getStatistics() const { return m_statistics; }

void StatisticsOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const unsigned int threads = detail::threadsFor(*this);
  const ImageObject& image = *input;
  const ImageStatistics statistics = detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    detail::shapeLike(image, image.getPointType(), *output);
    return statisticsOf(threads, static_cast<const T*>(image.getBuffer()), image.getPixelNumber(),
                        static_cast<T*>(output->getBuffer()));
  });
  m_statistics = statistics;
  detail::printFigures(m_stream, [&](std::ostream& os) {
    os << getName() << ": count=" << statistics.count << " min=" << statistics.min
       << " max=" << statistics.max << " mean=" << statistics.mean
       << " stddev=" << statistics.stddev << " sum=" << statistics.sum << '\n';
  });
}

}  // namespace vorn

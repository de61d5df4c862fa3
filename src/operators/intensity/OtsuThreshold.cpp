#include "vorn/operators/OtsuThreshold.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

#include "IntensityRange.hpp"
#include "ParallelRows.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

constexpr std::size_t kBins = 256;
using Histogram = std::array<double, kBins>;

Histogram histogramOf(const ImageObject& image, double min, double max, unsigned threads) {
  const double perUnit = static_cast<double>(kBins) / (max - min);
  return detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* pixels = static_cast<const T*>(image.getBuffer());
    auto map = [&](std::size_t begin, std::size_t end) {
      Histogram counts{};
      for (std::size_t k = begin; k < end; ++k) {
        const double value = pixels[k];
        if (!std::isfinite(value)) continue;
        // A value below min would make a negative index, which has no size_t.
        const double place = value > min ? (value - min) * perUnit : 0.0;
        const auto bin = static_cast<std::size_t>(std::min(place, double{kBins - 1}));
        counts[bin] += 1.0;
      }
      return counts;
    };
    auto combine = [](Histogram a, const Histogram& b) {
      for (std::size_t bin = 0; bin < kBins; ++bin) a[bin] += b[bin];
      return a;
    };
    return detail::parallelReduce(threads, image.getPixelNumber(), 1 << 16, Histogram{}, map,
                                  combine);
  });
}

// The class weights and means of both sides of every cut, summed from each end as the
// reference does; the first cut with the largest between-class variance wins.
double otsuThreshold(const Histogram& counts, const detail::ValueRange& range) {
  const double width = (range.max - range.min) / kBins;
  std::array<double, kBins> centre{};
  for (std::size_t bin = 0; bin < kBins; ++bin)
    centre[bin] = range.min + (static_cast<double>(bin) + 0.5) * width;
  std::array<double, kBins> weightAbove{};
  std::array<double, kBins> sumAbove{};
  double weight = 0.0;
  double sum = 0.0;
  for (std::size_t bin = kBins; bin-- > 0;) {
    weightAbove[bin] = weight += counts[bin];
    sumAbove[bin] = sum += counts[bin] * centre[bin];
  }
  double weightBelow = 0.0;
  double sumBelow = 0.0;
  double best = -1.0;
  std::size_t cut = 0;
  for (std::size_t bin = 0; bin + 1 < kBins; ++bin) {
    weightBelow += counts[bin];
    sumBelow += counts[bin] * centre[bin];
    const double gap = sumBelow / weightBelow - sumAbove[bin + 1] / weightAbove[bin + 1];
    const double variance = weightBelow * weightAbove[bin + 1] * gap * gap;
    if (variance > best) {
      best = variance;
      cut = bin;
    }
  }
  return centre[cut];
}

}  // namespace

OtsuThreshold::OtsuThreshold() {
  setName("OtsuThreshold");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("threshold", ""));
  addParameter(detail::threadsParameter());
}

double OtsuThreshold::getThreshold() const { return m_threshold; }

std::vector<double> OtsuThreshold::histogram(const ImageObject& image, double min, double max,
                                             unsigned threads) {
  if (!(min < max)) return std::vector<double>(kBins, 0.0);
  const Histogram counts = histogramOf(image, min, max, threads);
  return {counts.begin(), counts.end()};
}

double OtsuThreshold::thresholdOf(const std::vector<double>& counts, double min, double max) {
  if (!(min <= max)) return 0.0;
  if (!(max > min) || counts.size() != kBins) return min;
  Histogram bins{};
  std::copy(counts.begin(), counts.end(), bins.begin());
  return otsuThreshold(bins, detail::ValueRange{min, max});
}

void OtsuThreshold::generateData() {
  const unsigned threads = detail::threadsFor(*this);
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const ImageObject& in = *input;
  const std::optional<double> fixed = detail::optionalNumberParameter(*this, "threshold");
  double threshold = 0.0;
  if (fixed) {
    threshold = *fixed;
  } else {
    const detail::ValueRange range = detail::valueRange(in, threads, true);
    threshold = thresholdOf(histogram(in, range.min, range.max, threads), range.min, range.max);
  }
  const detail::Layout layout = detail::layoutOf(in);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::allocateForRegion(*output, PixelType::UCHAR, in.getBufferedRegion(), layout, target);
  detail::copyGeometry(in, *output);
  unsigned char* mask = static_cast<unsigned char*>(output->getBuffer());
  detail::dispatchPixelType(in.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* pixels = static_cast<const T*>(in.getBuffer());
    detail::parallelRows(threads, layout, target,
                         [&](long offset, const std::vector<long>&, long begin, long width) {
                           for (long i = offset + begin; i < offset + begin + width; ++i) {
                             mask[i] = static_cast<double>(pixels[i]) > threshold;
                           }
                         });
  });
  m_threshold = threshold;
}

}  // namespace vorn

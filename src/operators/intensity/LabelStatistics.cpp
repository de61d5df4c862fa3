#include "vorn/operators/LabelStatistics.hpp"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>

#include "ImageRegion.hpp"
#include "IntensityRange.hpp"
#include "Parallel.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {
namespace {

using detail::Layout;
using detail::Region;

// What one chunk gathers for every label value in [lowest, lowest + count).
struct Partial {
  std::vector<unsigned long> count;
  std::vector<double> min, max, sum;
  std::vector<long> low, high;  // per label, then per axis; low > high: no pixel yet

  Partial(std::size_t labels, std::size_t axes)
      : count(labels),
        min(labels, std::numeric_limits<double>::infinity()),
        max(labels, -std::numeric_limits<double>::infinity()),
        sum(labels),
        low(labels * axes, std::numeric_limits<long>::max()),
        high(labels * axes, -1) {}

  void merge(const Partial& other) {
    for (std::size_t l = 0; l < count.size(); ++l) {
      count[l] += other.count[l];
      min[l] = std::min(min[l], other.min[l]);
      max[l] = std::max(max[l], other.max[l]);
      sum[l] += other.sum[l];
    }
    for (std::size_t k = 0; k < low.size(); ++k) {
      low[k] = std::min(low[k], other.low[k]);
      high[k] = std::max(high[k], other.high[k]);
    }
  }
};

// Folds a function of (chunk partial, pixel offset, label slot, axis-0 index, row index) over
// every pixel, in slabs of about a million pixels along the outermost axis, partials combined
// in slab order.
template <class P, class Visit, class Combine>
P reduceRows(unsigned threads, const Layout& layout, P zero, Visit visit, Combine combine) {
  const Region whole = detail::wholeRegion(layout);
  const unsigned axis = detail::outermostAxis(whole);
  long slice = 1;
  for (unsigned a = 0; a < axis; ++a) slice *= layout.size[a];
  const auto grain = static_cast<std::size_t>(std::max(1L, (1L << 20) / slice));
  auto map = [&](std::size_t begin, std::size_t end) {
    P partial = zero;
    const Region part = detail::slab(whole, axis, static_cast<long>(begin), static_cast<long>(end));
    detail::forEachRow(layout, part, 0, [&](long offset, const std::vector<long>& index) {
      for (long x = part.start[0]; x < part.start[0] + part.size[0]; ++x) {
        visit(partial, offset + x, x, index);
      }
    });
    return partial;
  };
  return detail::parallelReduce(threads, static_cast<std::size_t>(whole.size[axis]), grain, zero,
                                map, combine);
}

template <class T, class L>
std::vector<LabelFigures> figuresOf(const T* values, const L* labels, const Layout& layout,
                                    long lowest, std::size_t slots, unsigned threads) {
  const std::size_t axes = layout.size.size();
  auto gather = [&](Partial& p, long k, long x, const std::vector<long>& index) {
    const auto slot = static_cast<std::size_t>(labels[k] - lowest);
    for (std::size_t a = 0; a < axes; ++a) {
      const long i = a == 0 ? x : index[a];
      p.low[slot * axes + a] = std::min(p.low[slot * axes + a], i);
      p.high[slot * axes + a] = std::max(p.high[slot * axes + a], i);
    }
    const double v = values[k];
    if (std::isnan(v)) return;
    ++p.count[slot];
    p.min[slot] = std::min(p.min[slot], v);
    p.max[slot] = std::max(p.max[slot], v);
    p.sum[slot] += v;
  };
  const Partial total =
      reduceRows(threads, layout, Partial(slots, axes), gather, [](Partial a, const Partial& b) {
        a.merge(b);
        return a;
      });
  std::vector<double> mean(slots);
  for (std::size_t l = 0; l < slots; ++l)
    mean[l] = total.sum[l] / static_cast<double>(total.count[l]);
  // The squared deviations from each label's mean, a second pass as StatisticsOperator does.
  auto deviate = [&](std::vector<double>& p, long k, long, const std::vector<long>&) {
    const auto slot = static_cast<std::size_t>(labels[k] - lowest);
    const double d = values[k] - mean[slot];
    if (!std::isnan(d)) p[slot] += d * d;
  };
  const std::vector<double> squares =
      reduceRows(threads, layout, std::vector<double>(slots), deviate,
                 [](std::vector<double> a, const std::vector<double>& b) {
                   for (std::size_t l = 0; l < a.size(); ++l) a[l] += b[l];
                   return a;
                 });
  std::vector<LabelFigures> result;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (std::size_t l = 0; l < slots; ++l) {
    const long label = lowest + static_cast<long>(l);
    if (label == 0 || total.high[l * axes] < 0) continue;
    LabelFigures f;
    f.label = label;
    const unsigned long n = total.count[l];
    f.figures = ImageStatistics{n,
                                n ? total.min[l] : nan,
                                n ? total.max[l] : nan,
                                n ? mean[l] : nan,
                                n ? std::sqrt(squares[l] / static_cast<double>(n)) : nan,
                                total.sum[l]};
    for (std::size_t a = 0; a < axes; ++a) {
      f.start.push_back(total.low[l * axes + a]);
      f.size.push_back(total.high[l * axes + a] - total.low[l * axes + a] + 1);
    }
    result.push_back(std::move(f));
  }
  return result;
}

std::string boxText(const LabelFigures& f) {
  std::string start, size;
  for (std::size_t a = 0; a < f.start.size(); ++a) {
    start += (a ? "," : "") + std::to_string(f.start[a]);
    size += (a ? "," : "") + std::to_string(f.size[a]);
  }
  return start + ":" + size;
}

void checkInputs(const ProcessObject& op, const ImageObject& values, const ImageObject& labels) {
  const PixelType::Type type = labels.getPointType();
  if (type != PixelType::UCHAR && type != PixelType::SHORT) {
    throw std::invalid_argument(op.getName() + ": the labels on input 1 are " +
                                getTypeIdName(type) + ", expected uchar or short");
  }
  const Box& a = values.getBufferedRegion();
  const Box& b = labels.getBufferedRegion();
  bool same = a.m_dimension == b.m_dimension;
  for (unsigned axis = 0; same && axis < a.m_dimension; ++axis)
    same = a.m_size[axis] == b.m_size[axis];
  if (!same) {
    throw std::invalid_argument(op.getName() +
                                ": the labels on input 1 and the image on input 0 differ in size");
  }
}

}  // namespace

LabelStatistics::LabelStatistics() : m_stream(&std::cout) {
  setName("LabelStatistics");
  addInput("ImageObject");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(detail::threadsParameter());
}

void LabelStatistics::setStream(std::ostream* stream) { m_stream = stream; }

const std::vector<LabelFigures>& LabelStatistics::getStatistics() const { return m_statistics; }

void LabelStatistics::generateData() {
  const unsigned threads = detail::threadsFor(*this);
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr labelImage = detail::inputImage(*this, 1);
  const ImageObject& values = *input;
  const ImageObject& labels = *labelImage;
  checkInputs(*this, values, labels);
  const detail::ValueRange range = detail::valueRange(labels, threads);
  const auto lowest = static_cast<long>(range.min);
  const auto slots = static_cast<std::size_t>(range.max - range.min) + 1;
  const Layout layout = detail::layoutOf(values);
  std::vector<LabelFigures> figures = detail::dispatchPixelType(values.getPointType(), [&](auto v) {
    using T = typename decltype(v)::type;
    const T* pixels = static_cast<const T*>(values.getBuffer());
    if (labels.getPointType() == PixelType::UCHAR) {
      return figuresOf(pixels, static_cast<const unsigned char*>(labels.getBuffer()), layout,
                       lowest, slots, threads);
    }
    return figuresOf(pixels, static_cast<const short*>(labels.getBuffer()), layout, lowest, slots,
                     threads);
  });
  detail::outputImage(*this, 0)->import(input.get(), this);
  m_statistics = std::move(figures);
  detail::printFigures(m_stream, [&](std::ostream& os) {
    for (const LabelFigures& f : m_statistics) {
      const ImageStatistics& s = f.figures;
      os << getName() << ": label=" << f.label << " count=" << s.count << " min=" << s.min
         << " max=" << s.max << " mean=" << s.mean << " stddev=" << s.stddev << " sum=" << s.sum
         << " box=" << boxText(f) << '\n';
    }
  });
}

}  // namespace vorn

#include "vorn/operators/ResampleOperator.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "ParallelRows.hpp"
#include "PixelConversion.hpp"
#include "Remap.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::Layout;
using detail::Region;

constexpr long kMaxSize = 1L << 24;
// The reference extends the image by this many edge pixels before its spline prefilter.
constexpr long kSplinePad = 12;

struct Axis {
  long size;
  double spacing;
  double origin;
};

std::vector<Axis> newGrid(ProcessObject& op, const ImageObject& image) {
  const unsigned axes = image.getDimension();
  const bool bySpacing = !op.getParameterValue("spacing").empty();
  if (bySpacing == !op.getParameterValue("size").empty()) {
    const std::string name = bySpacing ? "size" : "spacing";
    detail::throwBadParameter(op, name, op.getParameterValue(name),
                              "give exactly one of spacing= and size=");
  }
  std::vector<double> spacing;
  if (bySpacing) {
    spacing = detail::numberListParameter(op, "spacing");
    const std::string& value = op.getParameterValue("spacing");
    if (spacing.size() != 1 && spacing.size() != axes) {
      detail::throwBadParameter(op, "spacing", value,
                                "expected 1 value or " + std::to_string(axes) + " (one per axis)");
    }
    if (*std::min_element(spacing.begin(), spacing.end()) <= 0) {
      detail::throwBadParameter(op, "spacing", value, "not positive");
    }
    spacing.resize(axes, spacing.front());
  }
  const std::vector<long> sizes = detail::wholeListParameter(op, "size", axes, 1, kMaxSize, 0);
  std::vector<Axis> grid;
  for (unsigned axis = 0; axis < axes; ++axis) {
    if (!(image.getSpacing(axis) > 0) || !std::isfinite(image.getSpacing(axis))) {
      throw std::invalid_argument(
          op.getName() + ": the input's spacing on axis " + std::to_string(axis) + " is " +
          std::to_string(image.getSpacing(axis)) + ", expected a positive number");
    }
    const double extent =
        static_cast<double>(image.getBufferedRegion().m_size[axis]) * image.getSpacing(axis);
    const double count = bySpacing ? std::max(1.0, std::round(extent / spacing[axis]))
                                   : static_cast<double>(sizes[axis]);
    if (count > static_cast<double>(kMaxSize)) {
      detail::throwBadParameter(op, "spacing", op.getParameterValue("spacing"),
                                "gives more than 16777216 pixels on axis " + std::to_string(axis));
    }
    const double step = bySpacing ? spacing[axis] : extent / count;
    const double origin = image.getOrigin(axis) - image.getSpacing(axis) / 2 + step / 2;
    grid.push_back(Axis{static_cast<long>(count), step, origin});
  }
  return grid;
}

struct FreeMemory {
  void operator()(double* memory) const { std::free(memory); }
};
using Scratch = std::unique_ptr<double[], FreeMemory>;

// Uninitialised doubles on transparent huge pages where the kernel offers them: a fresh buffer
// costs a page fault per 4 KiB page on first write, more than the interpolation itself.
Scratch scratch(long count) {
  constexpr std::size_t kHugePage = std::size_t{2} << 20;
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(double);
  void* memory = std::aligned_alloc(kHugePage, (bytes + kHugePage - 1) / kHugePage * kHugePage);
  if (memory == nullptr) throw std::bad_alloc();
  madvise(memory, bytes, MADV_HUGEPAGE);  // only a hint: ignored where huge pages are off
  return Scratch(static_cast<double*>(memory));
}

int orderParameter(ProcessObject& op) {
  const std::string& value = op.getParameterValue("order");
  if (value == "0" || value == "1" || value == "3") return value[0] - '0';
  detail::throwBadParameter(op, "order", value, "expected 0 (nearest), 1 (linear) or 3 (cubic)");
}

// Output index j of one axis reads source indices index[j * count + t] with weight[...].
struct Taps {
  long count;
  std::vector<long> index;
  std::vector<double> weight;
};

// `pad` source pixels precede the input's first one; indices beyond the source clamp to it.
Taps tapsOf(const Axis& from, const Axis& to, int order, long pad) {
  Taps taps{order + 1, {}, {}};
  const long last = from.size + 2 * pad - 1;
  auto add = [&](long index, double weight) {
    taps.index.push_back(std::clamp(index, 0L, last));
    taps.weight.push_back(weight);
  };
  for (long j = 0; j < to.size; ++j) {
    const double x = to.origin + static_cast<double>(j) * to.spacing;
    // Beyond a few pixels outside, every tap reads the edge: clamping changes no value and
    // keeps the conversion to an index defined.
    const double c = std::clamp((x - from.origin) / from.spacing + static_cast<double>(pad), -3.0,
                                static_cast<double>(last + 3));
    const double f = std::floor(c);
    const double t = c - f;
    const long i = static_cast<long>(f);
    if (order == 0) {
      add(static_cast<long>(std::floor(c + 0.5)), 1.0);
    } else if (order == 1) {
      add(i, 1.0 - t);
      add(i + 1, t);
    } else {
      const double u = 1.0 - t;
      add(i - 1, u * u * u / 6.0);
      add(i, (3.0 * t * t * t - 6.0 * t * t + 4.0) / 6.0);
      add(i + 1, (3.0 * u * u * u - 6.0 * u * u + 4.0) / 6.0);
      add(i + 2, t * t * t / 6.0);
    }
  }
  return taps;
}

Layout layoutOfSizes(const std::vector<long>& sizes) {
  Layout layout{sizes, {}};
  long stride = 1;
  for (long size : sizes) {
    layout.stride.push_back(stride);
    stride *= size;
  }
  return layout;
}

// The cubic B-spline prefilter of `n` samples, lane by lane: sample i of lane l at
// c[i * step + l]. Causal then anticausal recursion with the mirror start the reference uses.
void splineFilter(double* c, long n, long step, long lanes) {
  if (n < 2) return;
  const double z = std::sqrt(3.0) - 2.0;
  const double gain = (1.0 - z) * (1.0 - 1.0 / z);
  const double zn = std::pow(z, static_cast<double>(n));
  auto row = [&](long i) { return c + i * step; };
  for (long i = 0; i < n; ++i) {
    for (long l = 0; l < lanes; ++l) row(i)[l] *= gain;
  }
  const std::vector<double> first(row(0), row(0) + lanes);
  const double* firstRow = first.data();
  std::vector<double> sums(static_cast<std::size_t>(lanes));
  double* sum = sums.data();
  for (long l = 0; l < lanes; ++l) sum[l] = row(0)[l] + zn * row(n - 1)[l];
  double zi = z;
  for (long i = 1; i < n; ++i, zi *= z) {
    for (long l = 0; l < lanes; ++l) sum[l] += zi * (row(i)[l] + zn * row(n - 1 - i)[l]);
  }
  for (long l = 0; l < lanes; ++l) row(0)[l] = sum[l] * z / (1.0 - zn * zn) + firstRow[l];
  for (long i = 1; i < n; ++i) {
    for (long l = 0; l < lanes; ++l) row(i)[l] += z * row(i - 1)[l];
  }
  for (long l = 0; l < lanes; ++l) row(n - 1)[l] *= z / (z - 1.0);
  for (long i = n - 2; i >= 0; --i) {
    for (long l = 0; l < lanes; ++l) row(i)[l] = z * (row(i + 1)[l] - row(i)[l]);
  }
}

// The B-spline coefficients of the image extended by kSplinePad edge pixels on every side.
Scratch splineCoefficients(const ImageObject& image, Layout& layout, unsigned threads) {
  const Layout in = detail::layoutOf(image);
  std::vector<long> sizes;
  for (long size : in.size) sizes.push_back(size + 2 * kSplinePad);
  layout = layoutOfSizes(sizes);
  Scratch coefficients = scratch(layout.pixels());
  double* c = coefficients.get();
  const Region whole = detail::wholeRegion(layout);
  auto source = [&](unsigned axis, long i) {
    return std::clamp(i - kSplinePad, 0L, in.size[axis] - 1) * in.stride[axis];
  };
  detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* pixels = static_cast<const T*>(image.getBuffer());
    detail::parallelRows(threads, layout, whole,
                         [&](long offset, const std::vector<long>& index, long begin, long width) {
                           long base = 0;
                           for (unsigned a = 1; a < index.size(); ++a) base += source(a, index[a]);
                           for (long x = begin; x < begin + width; ++x) {
                             c[offset + x] = pixels[base + source(0, x)];
                           }
                         });
  });
  for (unsigned axis = 0; axis < sizes.size(); ++axis) {
    if (axis == 0 && sizes.size() == 1) {
      splineFilter(c, sizes[0], 1, 1);
      continue;
    }
    Region lines = whole;
    if (axis > 0) lines.size[axis] = 1;
    detail::parallelRows(
        threads, layout, lines, [&](long offset, const std::vector<long>&, long begin, long width) {
          if (axis == 0) {
            splineFilter(c + offset, sizes[0], 1, 1);
          } else {
            splineFilter(c + offset + begin, sizes[axis], layout.stride[axis], width);
          }
        });
  }
  return coefficients;
}

// One axis resampled: dst over `work` from src, the other axes' indices unchanged. Along axis
// 0 each pixel sums its taps; along the others whole rows are summed, which vectorises.
template <class S>
void resampleAxis(const S* src, const Layout& from, double* dst, const Layout& to,
                  const Region& work, unsigned axis, const Taps& taps, unsigned threads) {
  const long k = taps.count;
  const long* tapIndex = taps.index.data();
  const double* tapWeight = taps.weight.data();
  detail::parallelRows(threads, to, work,
                       [&](long offset, const std::vector<long>& index, long begin, long width) {
                         long base = 0;
                         for (unsigned a = 1; a < index.size(); ++a) {
                           if (a != axis) base += index[a] * from.stride[a];
                         }
                         double* out = dst + offset;
                         if (axis == 0) {
                           for (long x = begin; x < begin + width; ++x) {
                             double sum = 0.0;
                             for (long t = x * k; t < x * k + k; ++t)
                               sum += tapWeight[t] * src[base + tapIndex[t]];
                             out[x] = sum;
                           }
                           return;
                         }
                         std::fill(out + begin, out + begin + width, 0.0);
                         for (long t = index[axis] * k; t < index[axis] * k + k; ++t) {
                           const S* line = src + base + tapIndex[t] * from.stride[axis];
                           const double w = tapWeight[t];
                           for (long x = begin; x < begin + width; ++x) out[x] += w * line[x];
                         }
                       });
}

// Every axis in turn; what each pass computes is the target's range on the axes already
// resampled and all of the source on the others.
template <class S>
Scratch resampleAll(const S* source, Layout from, const std::vector<Taps>& taps,
                    const std::vector<Axis>& grid, const Region& target, unsigned threads) {
  Scratch current;
  for (unsigned axis = 0; axis < grid.size(); ++axis) {
    std::vector<long> sizes = from.size;
    sizes[axis] = grid[axis].size;
    const Layout to = layoutOfSizes(sizes);
    Region work = detail::wholeRegion(to);
    for (unsigned a = 0; a <= axis; ++a) {
      work.start[a] = target.start[a];
      work.size[a] = target.size[a];
    }
    Scratch next = scratch(to.pixels());
    if (axis == 0) {
      resampleAxis(source, from, next.get(), to, work, axis, taps[axis], threads);
    } else {
      resampleAxis(current.get(), from, next.get(), to, work, axis, taps[axis], threads);
    }
    current = std::move(next);
    from = to;
  }
  return current;
}

}  // namespace

ResampleOperator::ResampleOperator() {
  setName("ResampleOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("spacing", ""));
  addParameter(new Parameter("size", ""));
  addParameter(new Parameter("order", "1"));
  addParameter(detail::threadsParameter());
}

void ResampleOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const ImageObject& image = *input;
  const std::vector<Axis> grid = newGrid(*this, image);
  const int order = orderParameter(*this);
  const unsigned threads = detail::threadsFor(*this);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const long pad = order == 3 ? kSplinePad : 0;
  std::vector<Taps> taps;
  std::vector<long> sizes;
  Box box(image.getDimension());
  for (unsigned axis = 0; axis < grid.size(); ++axis) {
    const Axis from{static_cast<long>(image.getBufferedRegion().m_size[axis]),
                    image.getSpacing(axis), image.getOrigin(axis)};
    taps.push_back(tapsOf(from, grid[axis], order, pad));
    sizes.push_back(grid[axis].size);
    box.m_size[axis] = static_cast<unsigned long>(grid[axis].size);
  }
  const Layout layout = layoutOfSizes(sizes);
  const Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  Scratch values;
  if (!target.empty() && order == 3) {
    Layout coefficientLayout;
    const Scratch c = splineCoefficients(image, coefficientLayout, threads);
    values = resampleAll(c.get(), coefficientLayout, taps, grid, target, threads);
  } else if (!target.empty()) {
    detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
      using T = typename decltype(tag)::type;
      values = resampleAll(static_cast<const T*>(image.getBuffer()), detail::layoutOf(image), taps,
                           grid, target, threads);
    });
  }
  detail::allocateForRegion(*output, image.getPointType(), box, layout, target);
  for (unsigned axis = 0; axis < grid.size(); ++axis) {
    output->setSpacing(axis, grid[axis].spacing);
    output->setOrigin(axis, grid[axis].origin);
  }
  detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* out = static_cast<T*>(output->getBuffer());
    const double* value = values.get();
    detail::parallelRows(threads, layout, target,
                         [&](long offset, const std::vector<long>&, long begin, long width) {
                           for (long i = offset + begin; i < offset + begin + width; ++i) {
                             out[i] = detail::convertPixel<T>(value[i]);
                           }
                         });
  });
}

}  // namespace vorn

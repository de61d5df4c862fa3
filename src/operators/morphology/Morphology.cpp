#include "vorn/operators/Morphology.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "ParallelRegion.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::forEachRow;
using detail::Layout;
using detail::Region;

constexpr double kMaxRadius = 1e6;

// The footprint as the operator runs it: per axis the reach in whole pixels, never beyond the
// image (pixels further out are never read), and for a ball its per-axis radii.
struct Footprint {
  std::vector<double> radius;
  std::vector<long> reach;
  bool box = false;
};

// A row of a ball: the pixels `offset` (axes 1 and up) away whose axis-0 half-length is `half`.
struct Chord {
  std::vector<long> offset;
  long half;
};

template <class T>
struct Minimum {
  static T neutral() {
    return std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity()
                                                : std::numeric_limits<T>::max();
  }
  static T pick(T a, T b) { return b < a ? b : a; }
};

template <class T>
struct Maximum {
  static T neutral() {
    return std::numeric_limits<T>::has_infinity ? -std::numeric_limits<T>::infinity()
                                                : std::numeric_limits<T>::lowest();
  }
  static T pick(T a, T b) { return a < b ? b : a; }
};

// Work buffers of one thread for windowExtreme.
template <class T>
struct Scratch {
  std::vector<T> pad, prefix, suffix, line, result;
};

// result[i] = the extreme of line[first + i - half .. first + i + half] within [0, length),
// in three comparisons per pixel whatever `half` is (van Herk / Gil-Werman): blocks of
// 2 half + 1 pixels, a running extreme forwards and backwards within each, and each window
// covering the tail of one block and the head of the next.
template <class Op, class T>
void windowExtreme(const T* line, long length, long first, long width, long half, Scratch<T>& s,
                   T* result) {
  const long span = 2 * half + 1;
  const long count = width + 2 * half;
  for (std::vector<T>* v : {&s.pad, &s.prefix, &s.suffix})
    v->resize(static_cast<std::size_t>(count));
  T* pad = s.pad.data();
  T* prefix = s.prefix.data();
  T* suffix = s.suffix.data();
  for (long j = 0; j < count; ++j) {
    const long at = first - half + j;
    pad[j] = at >= 0 && at < length ? line[at] : Op::neutral();
  }
  if (half <= 2) {  // a few comparisons beat three passes
    for (long i = 0; i < width; ++i) {
      T best = pad[i];
      for (long j = 1; j < span; ++j) best = Op::pick(best, pad[i + j]);
      result[i] = best;
    }
    return;
  }
  for (long block = 0; block < count; block += span) {
    const long last = std::min(count, block + span) - 1;
    prefix[block] = pad[block];
    for (long j = block + 1; j <= last; ++j) prefix[j] = Op::pick(prefix[j - 1], pad[j]);
    suffix[last] = pad[last];
    for (long j = last; j-- > block;) suffix[j] = Op::pick(suffix[j + 1], pad[j]);
  }
  for (long i = 0; i < width; ++i) result[i] = Op::pick(suffix[i], prefix[i + span - 1]);
}

// row[i] = pick(row[i], the extreme of line[first + i - H .. first + i + H]), pixels off the
// line counted as neutral: windowExtreme's order of comparisons (so NaN gives the same bits)
// without its copies, and a fixed window the compiler unrolls and vectorises.
template <class Op, long H, class T>
void pickShortWindow(const T* line, long length, long first, long width, T* row) {
  const auto at = [&](long x) { return x >= 0 && x < length ? line[x] : Op::neutral(); };
  const auto edge = [&](long i) {
    T best = at(first + i - H);
    for (long j = 1; j <= 2 * H; ++j) best = Op::pick(best, at(first + i - H + j));
    row[i] = Op::pick(row[i], best);
  };
  const long lo = std::clamp(H - first, 0L, width);           // from here x - H >= 0
  const long hi = std::clamp(length - H - first, lo, width);  // from here x + H >= length
  for (long i = 0; i < lo; ++i) edge(i);
  const T* window = hi > lo ? line + (first + lo - H) : line;
  T* out = row + lo;
  for (long i = 0; i < hi - lo; ++i) {
    T best = window[i];
    for (long j = 1; j <= 2 * H; ++j) best = Op::pick(best, window[i + j]);
    out[i] = Op::pick(out[i], best);
  }
  for (long i = hi; i < width; ++i) edge(i);
}

std::vector<Chord> chords(const Footprint& footprint) {
  const std::size_t axes = footprint.reach.size();
  std::vector<Chord> list;
  std::vector<long> offset(axes, 0);
  for (std::size_t a = 1; a < axes; ++a) offset[a] = -footprint.reach[a];
  while (true) {
    double used = 0;  // sum over axes 1.. of (offset / radius)^2
    for (std::size_t a = 1; a < axes; ++a) {
      if (offset[a] != 0) used += std::pow(static_cast<double>(offset[a]) / footprint.radius[a], 2);
    }
    if (used <= 1 + 1e-12) {
      const double r0 = footprint.radius[0];
      long half = 0;
      while (half < footprint.reach[0] &&
             std::pow(static_cast<double>(half + 1) / r0, 2) + used <= 1 + 1e-12)
        ++half;
      list.push_back(Chord{offset, half});
    }
    std::size_t a = 1;
    for (; a < axes; ++a) {
      if (++offset[a] <= footprint.reach[a]) break;
      offset[a] = -footprint.reach[a];
    }
    if (a >= axes) return list;
  }
}

// The ball: each output row is the extreme of the windowed extremes of the input rows its
// chords reach, a row off the image being left out.
template <class Op, class T>
void ballRows(const T* in, T* out, const Layout& image, const std::vector<Chord>& list,
              const Region& part) {
  Scratch<T> scratch;
  const long first = part.start[0];
  const long width = part.size[0];
  scratch.result.resize(static_cast<std::size_t>(width));
  forEachRow(image, part, 0, [&](long offset, const std::vector<long>& index) {
    T* row = out + offset + first;
    std::fill_n(row, width, Op::neutral());
    for (const Chord& chord : list) {
      long source = 0;
      bool inside = true;
      for (std::size_t a = 1; a < index.size(); ++a) {
        const long i = index[a] + chord.offset[a];
        inside = inside && i >= 0 && i < image.size[a];
        source += i * image.stride[a];
      }
      if (!inside) continue;
      const T* line = in + source;
      const long length = image.size[0];
      if (chord.half <= 2) {  // the chords of small balls
        if (chord.half == 0) pickShortWindow<Op, 0>(line, length, first, width, row);
        if (chord.half == 1) pickShortWindow<Op, 1>(line, length, first, width, row);
        if (chord.half == 2) pickShortWindow<Op, 2>(line, length, first, width, row);
        continue;
      }
      windowExtreme<Op>(line, length, first, width, chord.half, scratch, scratch.result.data());
      const T* result = scratch.result.data();
      for (long i = 0; i < width; ++i) row[i] = Op::pick(row[i], result[i]);
    }
  });
}

// One separable pass of the box along `axis`, in place when in == out: each line is copied
// out before it is written.
template <class Op, class T>
void boxLines(const T* in, T* out, const Layout& image, unsigned axis, long half,
              const Region& part) {
  Scratch<T> s;
  const long length = image.size[axis];
  const long stride = image.stride[axis];
  const long begin = part.start[axis];
  const long count = part.size[axis];
  s.line.resize(static_cast<std::size_t>(length));
  s.result.resize(static_cast<std::size_t>(count));
  const long from = std::max(0L, begin - half);
  const long to = std::min(length, begin + count + half);
  forEachRow(image, part, axis, [&](long offset, const std::vector<long>&) {
    if (axis == 0) {
      windowExtreme<Op>(in + offset, length, begin, count, half, s, s.result.data());
      std::copy(s.result.begin(), s.result.end(), out + offset + begin);
      return;
    }
    for (long c = part.start[0]; c < part.start[0] + part.size[0]; ++c) {
      T* line = s.line.data();
      const T* result = s.result.data();
      for (long j = from; j < to; ++j) line[j] = in[offset + c + j * stride];
      windowExtreme<Op>(line, length, begin, count, half, s, s.result.data());
      for (long j = 0; j < count; ++j) out[offset + c + (begin + j) * stride] = result[j];
    }
  });
}

// Writes the extreme of `in` over the footprint into `out` over `target`, reading `in` only
// within `target` widened by the footprint's reach.
template <class Op, class T>
void extremeFilter(const T* in, T* out, const Layout& image, const Region& target,
                   const Footprint& footprint, unsigned threads) {
  if (!footprint.box) {
    const std::vector<Chord> list = chords(footprint);
    detail::parallelSlabs(threads, target, -1u,
                          [&](const Region& part) { ballRows<Op>(in, out, image, list, part); });
    return;
  }
  std::vector<unsigned> axes;
  for (unsigned a = 0; a < image.size.size(); ++a) {
    if (footprint.reach[a] > 0) axes.push_back(a);
  }
  if (axes.empty()) {  // one pixel: a pass of half-width 0 copies
    detail::parallelSlabs(threads, target, -1u,
                          [&](const Region& part) { boxLines<Op>(in, out, image, 0, 0, part); });
    return;
  }
  std::vector<Region> regions(axes.size());
  Region needed = target;
  for (std::size_t p = axes.size(); p-- > 0;) {
    regions[p] = needed;
    needed = detail::widened(needed, axes[p], footprint.reach[axes[p]], image);
  }
  for (std::size_t p = 0; p < axes.size(); ++p) {
    const T* source = p == 0 ? in : out;
    detail::parallelSlabs(threads, regions[p], axes[p], [&](const Region& part) {
      boxLines<Op>(source, out, image, axes[p], footprint.reach[axes[p]], part);
    });
  }
}

Region widenedBy(Region region, const Footprint& footprint, const Layout& image) {
  for (unsigned a = 0; a < image.size.size(); ++a) {
    region = detail::widened(region, a, footprint.reach[a], image);
  }
  return region;
}

Footprint footprintOf(ProcessObject& op, const Layout& image) {
  const std::string shape = op.getParameterValue("shape");
  if (shape != "ball" && shape != "box") {
    detail::throwBadParameter(op, "shape", shape, "expected ball or box");
  }
  std::vector<double> radius = detail::numberListParameter(op, "radius");
  const std::string& value = op.getParameterValue("radius");
  const std::size_t axes = image.size.size();
  if (radius.size() != 1 && radius.size() != axes) {
    detail::throwBadParameter(op, "radius", value,
                              "expected 1 value or " + std::to_string(axes) + " (one per axis)");
  }
  for (double r : radius) {
    if (r < 0 || r > kMaxRadius) detail::throwBadParameter(op, "radius", value, "not in 0..1e6");
  }
  radius.resize(axes, radius.front());
  Footprint footprint{radius, {}, shape == "box"};
  for (std::size_t a = 0; a < axes; ++a) {
    footprint.reach.push_back(std::min(static_cast<long>(radius[a]), image.size[a] - 1));
  }
  return footprint;
}

enum class Kind { Erode, Dilate, Open, Close };

// An opening or closing runs the footprint twice, so it reads twice as far.
std::vector<long> reachOf(ProcessObject& op, unsigned axes, long passes) {
  const Layout unbounded{std::vector<long>(axes, 1L << 40), {}};
  std::vector<long> reach = footprintOf(op, unbounded).reach;
  for (long& r : reach) r *= passes;
  return reach;
}

void declare(ProcessObject& op, const char* name) {
  op.setName(name);
  op.addInput("ImageObject");
  op.addOutput("ImageObject");
  op.addParameter(new Parameter("radius", "1"));
  op.addParameter(new Parameter("shape", "ball"));
  op.addParameter(detail::threadsParameter());
}

template <class T>
void morphology(const T* in, T* out, const Layout& layout, const Region& target,
                const Footprint& footprint, Kind kind, unsigned threads,
                std::vector<char>& between) {
  if (kind == Kind::Erode) {
    extremeFilter<Minimum<T>>(in, out, layout, target, footprint, threads);
  } else if (kind == Kind::Dilate) {
    extremeFilter<Maximum<T>>(in, out, layout, target, footprint, threads);
  } else {
    // The second filter reads the first one's result around the target, within its reach.
    // Its old contents do not matter: the first filter writes all that the second reads.
    between.resize(sizeof(T) * static_cast<std::size_t>(layout.pixels()));
    T* first = reinterpret_cast<T*>(between.data());
    const Region around = widenedBy(target, footprint, layout);
    if (kind == Kind::Open) {
      extremeFilter<Minimum<T>>(in, first, layout, around, footprint, threads);
      extremeFilter<Maximum<T>>(first, out, layout, target, footprint, threads);
    } else {
      extremeFilter<Maximum<T>>(in, first, layout, around, footprint, threads);
      extremeFilter<Minimum<T>>(first, out, layout, target, footprint, threads);
    }
  }
  if (target.size != layout.size) detail::zeroOutside(out, layout, target);
}

void run(ProcessObject& op, Kind kind, std::vector<char>& between) {
  const detail::ImagePtr input = detail::inputImage(op, 0);
  const detail::ImagePtr output = detail::outputImage(op, 0);
  const Layout layout = detail::layoutOf(*input);
  const Footprint footprint = footprintOf(op, layout);
  const unsigned threads = detail::threadsFor(op);
  const Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::allocateLike(*input, *output, [&](const auto* in, auto* out) {
    if (target.empty()) {
      using T = std::remove_pointer_t<decltype(out)>;
      std::fill_n(out, output->getPixelNumber(), T(0));
      return;
    }
    morphology(in, out, layout, target, footprint, kind, threads, between);
  });
}

}  // namespace

Erosion::Erosion() { declare(*this, "Erosion"); }
void Erosion::generateData() {
  std::vector<char> unused;
  run(*this, Kind::Erode, unused);
}
std::vector<long> Erosion::inputHalo(unsigned int axes) { return reachOf(*this, axes, 1); }

Dilation::Dilation() { declare(*this, "Dilation"); }
void Dilation::generateData() {
  std::vector<char> unused;
  run(*this, Kind::Dilate, unused);
}
std::vector<long> Dilation::inputHalo(unsigned int axes) { return reachOf(*this, axes, 1); }

Opening::Opening() { declare(*this, "Opening"); }
void Opening::generateData() { run(*this, Kind::Open, m_between); }
std::vector<long> Opening::inputHalo(unsigned int axes) { return reachOf(*this, axes, 2); }

Closing::Closing() { declare(*this, "Closing"); }
void Closing::generateData() { run(*this, Kind::Close, m_between); }
std::vector<long> Closing::inputHalo(unsigned int axes) { return reachOf(*this, axes, 2); }

}  // namespace vorn

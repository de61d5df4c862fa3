#include "vorn/operators/DistanceMap.hpp"

#include <cmath>
#include <limits>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "ParallelRegion.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::Layout;
using detail::Region;

constexpr double kFar = std::numeric_limits<double>::infinity();

// Work buffers of one thread for one line.
struct Envelope {
  std::vector<double> f, d, z;
  std::vector<long> v;
};

// d[q] = min over p of ((q - p) step)^2 + f[p], by the lower envelope of the parabolas rooted
// at the finite f[p] (Felzenszwalb and Huttenlocher): linear in the line's length.
void lowerEnvelope(Envelope& e, long n, double step) {
  e.v.resize(static_cast<std::size_t>(n));
  e.z.resize(static_cast<std::size_t>(n) + 1);
  double* f = e.f.data();
  double* z = e.z.data();
  long* v = e.v.data();
  long k = -1;
  for (long q = 0; q < n; ++q) {
    if (f[q] == kFar) continue;
    const double xq = static_cast<double>(q) * step;
    double s = -kFar;
    while (k >= 0) {
      const double xv = static_cast<double>(v[k]) * step;
      s = ((f[q] + xq * xq) - (f[v[k]] + xv * xv)) / (2 * (xq - xv));
      if (s > z[k]) break;
      --k;
    }
    ++k;
    v[k] = q;
    z[k] = k == 0 ? -kFar : s;
    z[k + 1] = kFar;
  }
  double* d = e.d.data();
  if (k < 0) {
    std::fill_n(d, n, kFar);
    return;
  }
  long j = 0;
  for (long q = 0; q < n; ++q) {
    const double xq = static_cast<double>(q) * step;
    while (z[j + 1] < xq) ++j;
    const double dx = xq - static_cast<double>(v[j]) * step;
    d[q] = dx * dx + f[v[j]];
  }
}

// One pass along `axis` over the lines of `part`: squared distances in `out` are replaced by
// the lower envelope along the axis (the first pass starts from 0 on zeros, infinity elsewhere).
template <class T>
void pass(const T* in, float* out, const Layout& image, unsigned axis, double step,
          const Region& part) {
  Envelope e;
  const long n = image.size[axis];
  const long stride = image.stride[axis];
  e.f.resize(static_cast<std::size_t>(n));
  e.d.resize(static_cast<std::size_t>(n));
  const long first = part.start[0], end = first + part.size[0];
  detail::forEachRow(image, part, axis, [&](long offset, const std::vector<long>&) {
    const long columns = axis == 0 ? 1 : end - first;
    for (long c = 0; c < columns; ++c) {
      const long base = offset + (axis == 0 ? 0 : first + c);
      double* f = e.f.data();
      for (long j = 0; j < n; ++j) {
        const long p = base + j * stride;
        f[j] = in ? (in[p] == T(0) ? 0.0 : kFar) : static_cast<double>(out[p]);
      }
      lowerEnvelope(e, n, step);
      const double* d = e.d.data();
      for (long j = 0; j < n; ++j) out[base + j * stride] = static_cast<float>(d[j]);
    }
  });
}

}  // namespace

DistanceMap::DistanceMap() {
  setName("DistanceMap");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(detail::threadsParameter());
}

void DistanceMap::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const unsigned threads = detail::threadsFor(*this);
  const Layout layout = detail::layoutOf(*input);
  detail::dispatchPixelType(input->getPointType(), [](auto) {});  // refuses types without pixels
  output->Allocate(PixelType::FLOAT, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  float* out = static_cast<float*>(output->getBuffer());
  const Region whole = detail::wholeRegion(layout);
  for (unsigned axis = 0; axis < layout.size.size(); ++axis) {
    const double spacing = input->getSpacing(axis);
    const double step = spacing > 0 && std::isfinite(spacing) ? spacing : 1.0;
    detail::parallelSlabs(threads, whole, axis, [&](const Region& part) {
      detail::dispatchPixelType(input->getPointType(), [&](auto tag) {
        using T = typename decltype(tag)::type;
        pass<T>(axis == 0 ? static_cast<const T*>(input->getBuffer()) : nullptr, out, layout, axis,
                step, part);
      });
    });
  }
  detail::parallelSlabs(threads, whole, -1u, [&](const Region& part) {
    detail::forEachRow(layout, part, 0, [&](long offset, const std::vector<long>&) {
      float* row = out + offset + part.start[0];
      for (long x = 0; x < part.size[0]; ++x) row[x] = std::sqrt(row[x]);
    });
  });
}

}  // namespace vorn

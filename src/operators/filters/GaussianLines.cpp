#include "GaussianLines.hpp"

#include <algorithm>
#include <cmath>

#include "OperatorSupport.hpp"
#include "ParallelRegion.hpp"

namespace vorn {
namespace detail {
namespace {

// A radius of 4e6 pixels still makes its kernel in milliseconds; anything wider is a typo.
constexpr double kMaxSigma = 1e6;

// One pass: `region` is what it writes; it reads that region widened by the radius along `axis`.
struct Pass {
  unsigned axis;
  LineKernel kernel;
  Region region;
};

// The kernels that change something, each pass writing what the next one reads; the last
// writes `target`. Every pass but the last works on the target widened by the later passes'
// radii, so the passes run from the last axis to the first: a volume's slices across its last
// axis are the ones a stack is made of and looked at, and a view of one of them then smooths
// its halo of slices once, down to the slice itself. The order is fixed, never chosen by the
// target or the image's size, since float sums in another order round differently, and a
// region or a chunk must give the bits of the whole image.
std::vector<Pass> plan(const std::vector<LineKernel>& kernels, const Layout& image,
                       const Region& target) {
  std::vector<Pass> passes;
  for (unsigned axis = static_cast<unsigned>(kernels.size()); axis-- > 0;) {
    if (!kernels[axis].identity()) passes.push_back(Pass{axis, kernels[axis], Region{}});
  }
  Region needed = target;
  for (auto pass = passes.rbegin(); pass != passes.rend(); ++pass) {
    pass->region = needed;
    needed = widened(needed, pass->axis, pass->kernel.radius(), image);
  }
  return passes;
}

// row[i] = w[0] * centre[i] + the sum over k of w[k] times the two samples k taps away, added
// (even kernel) or after minus before (odd), a tap being `tap` floats. Loops over i innermost
// so that they vectorise; two taps per sweep halve the loads and stores of the row. Inlined
// into one function per kernel kind, as clang cannot clone a template per vector unit.
template <bool Odd>
[[gnu::always_inline]] inline void applyKernel(const float* centre, long tap, float* row,
                                               long width, const std::vector<float>& w) {
  constexpr float sign = Odd ? -1.0f : 1.0f;
  const long taps = static_cast<long>(w.size());
  const float* weights = w.data();
  for (long i = 0; i < width; ++i) row[i] = weights[0] * centre[i];
  long k = 1;
  for (; k + 1 < taps; k += 2) {
    const float* before = centre - k * tap;
    const float* after = centre + k * tap;
    const float* beforeNext = before - tap;
    const float* afterNext = after + tap;
    const float wk = weights[k];
    const float wNext = weights[k + 1];
    for (long i = 0; i < width; ++i) {
      row[i] += wk * (after[i] + sign * before[i]) + wNext * (afterNext[i] + sign * beforeNext[i]);
    }
  }
  if (k < taps) {
    const float* before = centre - k * tap;
    const float* after = centre + k * tap;
    for (long i = 0; i < width; ++i) row[i] += weights[k] * (after[i] + sign * before[i]);
  }
}

VORN_WIDEST_VECTORS void applyOddKernel(const float* centre, long tap, float* row, long width,
                                        const std::vector<float>& w) {
  applyKernel<true>(centre, tap, row, width, w);
}

VORN_WIDEST_VECTORS void applyEvenKernel(const float* centre, long tap, float* row, long width,
                                         const std::vector<float>& w) {
  applyKernel<false>(centre, tap, row, width, w);
}

void apply(const Pass& pass, const float* centre, long tap, float* row, long width) {
  if (pass.kernel.odd) {
    applyOddKernel(centre, tap, row, width, pass.kernel.weights);
  } else {
    applyEvenKernel(centre, tap, row, width, pass.kernel.weights);
  }
}

// Each pass copies what it reads into a small float buffer, with the edges repeated, before
// it writes over it: the taps need no bounds checks, the passes can work in place in the
// output (no temporary image), and UCHAR or SHORT pixels become float on the way.
//
// Axis 0: one whole row at a time.
template <class T>
void alongRows(const T* in, float* out, const Layout& image, const Pass& pass, const Region& part) {
  const long radius = pass.kernel.radius();
  const long first = part.start[0];
  const long width = part.size[0];
  const long last = image.size[0] - 1;
  std::vector<float> padded(static_cast<std::size_t>(width + 2 * radius));
  float* pad = padded.data();
  forEachRow(image, part, 0, [&](long offset, const std::vector<long>&) {
    for (long j = 0; j < width + 2 * radius; ++j) {
      pad[j] = static_cast<float>(in[offset + std::clamp(first - radius + j, 0L, last)]);
    }
    apply(pass, padded.data() + radius, 1, out + offset + first, width);
  });
}

// Pieces of rows short enough for a window of them to stay in cache, long enough to vectorise.
constexpr long kPieceWidth = 512;
constexpr long kBlockRows = 64;

// One piece of `width` columns of a line along the pass's axis, `in` and `out` pointing at the
// piece's first column. The window slides along the line: slot s holds row first - radius + s
// of the block being computed, and the 2 * radius rows a block shares with the next are kept,
// since in place their originals are gone once written.
template <class T>
void piece(const T* in, float* out, long width, const Layout& image, const Pass& pass,
           std::vector<float>& window) {
  const long radius = pass.kernel.radius();
  const long stride = image.stride[pass.axis];
  const long last = image.size[pass.axis] - 1;
  const long begin = pass.region.start[pass.axis];
  const long count = pass.region.size[pass.axis];
  auto load = [&](long row, long slot) {
    const T* source = in + std::clamp(row, 0L, last) * stride;
    std::copy(source, source + width, window.begin() + slot * width);
  };
  for (long slot = 0; slot < 2 * radius; ++slot) load(begin - radius + slot, slot);
  for (long first = begin; first < begin + count; first += kBlockRows) {
    const long rows = std::min(kBlockRows, begin + count - first);
    for (long s = 0; s < rows; ++s) load(first + radius + s, 2 * radius + s);
    for (long s = 0; s < rows; ++s) {
      apply(pass, window.data() + (s + radius) * width, width, out + (first + s) * stride, width);
    }
    const auto kept = window.begin() + rows * width;
    std::copy(kept, kept + 2 * radius * width, window.begin());
  }
}

// Other axes: each output row is a weighted sum of whole rows, so the inner loops run over
// contiguous memory.
template <class T>
void acrossRows(const T* in, float* out, const Layout& image, const Pass& pass,
                const Region& part) {
  const long first = part.start[0];
  const long width = part.size[0];
  const long pieceWidth = std::min(width, kPieceWidth);
  std::vector<float> window(
      static_cast<std::size_t>((kBlockRows + 2 * pass.kernel.radius()) * pieceWidth));
  forEachRow(image, part, pass.axis, [&](long offset, const std::vector<long>&) {
    for (long column = first; column < first + width; column += pieceWidth) {
      const long base = offset + column;
      piece(in + base, out + base, std::min(pieceWidth, first + width - column), image, pass,
            window);
    }
  });
}

// Lines along the pass's axis are independent: slabs across another axis share the pass.
template <class T>
void runPass(const T* in, float* out, const Layout& image, const Pass& pass, unsigned threads) {
  parallelSlabs(threads, pass.region, pass.axis, [&](const Region& part) {
    if (pass.axis == 0) {
      alongRows(in, out, image, pass, part);
    } else {
      acrossRows(in, out, image, pass, part);
    }
  });
}

// Without any pass the output is the input over the target, as float.
void copyTarget(const ImageObject& input, const Layout& layout, const Region& target,
                float* output) {
  const long first = target.start[0];
  const long end = first + target.size[0];
  dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = static_cast<const T*>(input.getBuffer());
    forEachRow(layout, target, 0, [&](long offset, const std::vector<long>&) {
      std::copy(in + offset + first, in + offset + end, output + offset + first);
    });
  });
}

// The derivative of order `order` of exp(-x^2 / (2 sigma^2)), as a polynomial factor.
double derivativeFactor(double x, double sigma, unsigned order) {
  const double s2 = sigma * sigma;
  if (order == 1) return x / s2;
  if (order == 2) return x * x / (s2 * s2) - 1.0 / s2;
  return 1.0;
}

}  // namespace

// Sigma 0 is only asked for with order 0 (sigmaPerAxis refuses it otherwise).
// The odd kernel is weighted by +x/sigma^2 on the far side: a rising ramp has a positive
// derivative. Once the edge pixel repeats, every tap at or beyond length - 1 reads the two
// edge pixels, so those weights are summed into that one tap.
LineKernel gaussianKernel(double sigma, unsigned order, long length) {
  const long radius = sigma == 0 ? 0 : static_cast<long>(4.0 * sigma + 0.5);
  const long kept = std::max(0L, std::min(radius, length - 1));
  if (order == 0 && kept == 0) return LineKernel{{1.0f}, false};
  std::vector<double> weights(static_cast<std::size_t>(kept) + 1, 0.0);
  double total = 0.0;
  for (long k = 0; k <= radius; ++k) {
    const double x = static_cast<double>(k) / sigma;
    const double w = std::exp(-0.5 * x * x);
    total += k == 0 ? w : 2.0 * w;
    const long tap = std::min(k, kept);
    const double pair = tap == 0 && k > 0 ? 2.0 : 1.0;  // both samples land on the centre
    weights[static_cast<std::size_t>(tap)] +=
        pair * w * derivativeFactor(static_cast<double>(k), sigma, order);
  }
  LineKernel kernel{{}, order == 1};
  if (kernel.odd) weights[0] = 0.0;
  for (double w : weights) kernel.weights.push_back(static_cast<float>(w / total));
  return kernel;
}

std::vector<double> sigmaPerAxis(ProcessObject& op, std::size_t axes, bool positive) {
  std::vector<double> sigmas = numberListParameter(op, "sigma");
  const std::string& value = op.getParameterValue("sigma");
  if (sigmas.size() != 1 && sigmas.size() != axes) {
    throwBadParameter(op, "sigma", value,
                      "expected 1 value or " + std::to_string(axes) + " (one per axis)");
  }
  for (double sigma : sigmas) {
    if (sigma < 0) throwBadParameter(op, "sigma", value, "negative");
    if (positive && sigma == 0) throwBadParameter(op, "sigma", value, "must be above 0");
    if (sigma > kMaxSigma) throwBadParameter(op, "sigma", value, "above 1e6 pixels");
  }
  sigmas.resize(axes, sigmas.front());
  return sigmas;
}

// The first pass reads the input, in its own type; the others work in place in the output.
Region correlateSeparable(const ImageObject& input, const std::vector<LineKernel>& kernels,
                          const Region& target, float* output, unsigned threads) {
  const Layout layout = layoutOf(input);
  const std::vector<Pass> passes = plan(kernels, layout, target);
  if (passes.empty()) {
    copyTarget(input, layout, target, output);
    return target;
  }
  dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    runPass(static_cast<const T*>(input.getBuffer()), output, layout, passes.front(), threads);
  });
  for (std::size_t i = 1; i < passes.size(); ++i) {
    runPass(output, output, layout, passes[i], threads);
  }
  return passes.front().region;
}

std::vector<long> gaussianHalo(ProcessObject& op, std::size_t axes, bool positive) {
  std::vector<long> halo;
  for (double sigma : sigmaPerAxis(op, axes, positive)) {
    halo.push_back(static_cast<long>(4.0 * sigma + 0.5));
  }
  return halo;
}

}  // namespace detail
}  // namespace vorn

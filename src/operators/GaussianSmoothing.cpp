#include "vorn/operators/GaussianSmoothing.hpp"

#include <algorithm>
#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::forEachRow;
using detail::Layout;
using detail::layoutOf;
using detail::Region;
using detail::widened;

// A radius of 4e6 pixels still makes its kernel in milliseconds; anything wider is a typo.
constexpr double kMaxSigma = 1e6;

// One separable pass: weights[0] for the centre, weights[k] for the sum of the two samples
// k pixels away. It writes `region` and reads that region widened by the radius along `axis`.
struct Pass {
  unsigned axis;
  std::vector<float> weights;
  Region region;
  long radius() const { return static_cast<long>(weights.size()) - 1; }
};

std::vector<double> sigmaPerAxis(ProcessObject& op, std::size_t axes) {
  std::vector<double> sigmas = detail::numberListParameter(op, "sigma");
  const std::string& value = op.getParameterValue("sigma");
  if (sigmas.size() != 1 && sigmas.size() != axes) {
    detail::throwBadParameter(op, "sigma", value,
                              "expected 1 value or " + std::to_string(axes) + " (one per axis)");
  }
  for (double sigma : sigmas) {
    if (sigma < 0) detail::throwBadParameter(op, "sigma", value, "negative");
    if (sigma > kMaxSigma) detail::throwBadParameter(op, "sigma", value, "above 1e6 pixels");
  }
  sigmas.resize(axes, sigmas.front());
  return sigmas;
}

// The kernel of one axis of `length` pixels. Once the edge pixel repeats, every tap at or
// beyond length - 1 reads the two edge pixels, so those weights are summed into that one tap.
std::vector<float> kernel(double sigma, long length) {
  const long radius = static_cast<long>(4.0 * sigma + 0.5);
  const long kept = std::min(radius, length - 1);
  if (kept <= 0) return {1.0f};
  std::vector<double> weights(static_cast<std::size_t>(kept) + 1, 0.0);
  double total = 0.0;
  for (long k = 0; k <= radius; ++k) {
    const double x = static_cast<double>(k) / sigma;
    const double w = std::exp(-0.5 * x * x);
    total += k == 0 ? w : 2.0 * w;
    weights[static_cast<std::size_t>(std::min(k, kept))] += w;
  }
  std::vector<float> normalised;
  for (double w : weights) normalised.push_back(static_cast<float>(w / total));
  return normalised;
}

// Passes for the axes a kernel changes, in axis order, each writing what the next one reads;
// the last writes `target`.
std::vector<Pass> plan(const std::vector<double>& sigmas, const Layout& image,
                       const Region& target) {
  std::vector<Pass> passes;
  for (unsigned axis = 0; axis < sigmas.size(); ++axis) {
    std::vector<float> weights = kernel(sigmas[axis], image.size[axis]);
    if (weights.size() > 1) passes.push_back(Pass{axis, std::move(weights), Region{}});
  }
  Region needed = target;
  for (auto pass = passes.rbegin(); pass != passes.rend(); ++pass) {
    pass->region = needed;
    needed = widened(needed, pass->axis, pass->radius(), image);
  }
  return passes;
}

// row[i] = w[0] * centre[i] + sum over k of w[k] * (the two samples k taps away), a tap being
// `tap` floats. Loops over i innermost so that they vectorise; two taps per sweep halve the
// loads and stores of the row.
VORN_WIDEST_VECTORS void applyKernel(const float* centre, long tap, float* row, long width,
                                     const std::vector<float>& w) {
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
      row[i] += wk * (before[i] + after[i]) + wNext * (beforeNext[i] + afterNext[i]);
    }
  }
  if (k < taps) {
    const float* before = centre - k * tap;
    const float* after = centre + k * tap;
    for (long i = 0; i < width; ++i) row[i] += weights[k] * (before[i] + after[i]);
  }
}

// Each pass copies what it reads into a small float buffer, with the edges repeated, before
// it writes over it: the taps need no bounds checks, the passes can work in place in the
// output (no temporary image), and UCHAR or SHORT pixels become float on the way.
//
// Axis 0: one whole row at a time.
template <class T>
void smoothAlongRows(const T* in, float* out, const Layout& image, const Pass& pass) {
  const long radius = pass.radius();
  const long first = pass.region.start[0];
  const long width = pass.region.size[0];
  const long last = image.size[0] - 1;
  std::vector<float> padded(static_cast<std::size_t>(width + 2 * radius));
  float* pad = padded.data();
  forEachRow(image, pass.region, 0, [&](long offset, const std::vector<long>&) {
    for (long j = 0; j < width + 2 * radius; ++j) {
      pad[j] = static_cast<float>(in[offset + std::clamp(first - radius + j, 0L, last)]);
    }
    applyKernel(padded.data() + radius, 1, out + offset + first, width, pass.weights);
  });
}

// Pieces of rows short enough for a window of them to stay in cache, long enough to vectorise.
constexpr long kPieceWidth = 512;
constexpr long kBlockRows = 64;

// One piece of `width` columns of a line along `axis`, `in` and `out` pointing at the piece's
// first column. The window slides along the line: slot s holds row first - radius + s of the
// block being computed, and the 2 * radius rows a block shares with the next are kept, since in
// place their originals are gone once written.
template <class T>
void smoothPiece(const T* in, float* out, long width, const Layout& image, const Pass& pass,
                 std::vector<float>& window) {
  const long radius = pass.radius();
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
      applyKernel(window.data() + (s + radius) * width, width, out + (first + s) * stride, width,
                  pass.weights);
    }
    const auto kept = window.begin() + rows * width;
    std::copy(kept, kept + 2 * radius * width, window.begin());
  }
}

// Other axes: each output row is a weighted sum of whole rows, so the inner loops run over
// contiguous memory.
template <class T>
void smoothAcrossRows(const T* in, float* out, const Layout& image, const Pass& pass) {
  const long first = pass.region.start[0];
  const long width = pass.region.size[0];
  const long piece = std::min(width, kPieceWidth);
  std::vector<float> window(static_cast<std::size_t>((kBlockRows + 2 * pass.radius()) * piece));
  forEachRow(image, pass.region, pass.axis, [&](long offset, const std::vector<long>&) {
    for (long column = first; column < first + width; column += piece) {
      const long base = offset + column;
      smoothPiece(in + base, out + base, std::min(piece, first + width - column), image, pass,
                  window);
    }
  });
}

// Calls f(part) for chunks of `region` cut along `axis`, of about kGrainPixels each and at
// least `minimum` lines, on up to `threads` threads. The lines along the other axes of each
// part are its own: no two chunks read or write the same pixel.
template <class F>
void forEachSlab(unsigned threads, const Region& region, unsigned axis, std::size_t minimum,
                 F&& f) {
  const auto lines = static_cast<std::size_t>(region.size[axis]);
  if (lines == 0) return;
  const std::size_t grain = std::max(
      minimum, detail::grainFor(static_cast<std::size_t>(detail::pixelsOf(region)) / lines));
  detail::parallelFor(threads, lines, grain, [&](std::size_t begin, std::size_t end) {
    f(detail::slab(region, axis, static_cast<long>(begin), static_cast<long>(end)));
  });
}

// The outermost axis other than the pass's own with more than one line: lines along the pass's
// axis are independent, so chunks cut across them. The pass's axis when there is none (one line).
unsigned splitAxis(const Pass& pass) {
  for (unsigned axis = static_cast<unsigned>(pass.region.size.size()); axis-- > 0;) {
    if (axis != pass.axis && pass.region.size[axis] > 1) return axis;
  }
  return pass.axis;
}

// A cut along axis 0 keeps whole pieces of kPieceWidth columns, so that they still vectorise.
template <class T>
void runPass(unsigned threads, const T* in, float* out, const Layout& image, const Pass& pass) {
  const unsigned axis = splitAxis(pass);
  const std::size_t minimum = axis == 0 ? static_cast<std::size_t>(kPieceWidth) : 1;
  const std::size_t whole =
      axis == pass.axis ? static_cast<std::size_t>(pass.region.size[axis]) : 0;
  forEachSlab(threads, pass.region, axis, std::max(minimum, whole), [&](const Region& part) {
    const Pass piece{pass.axis, pass.weights, part};
    if (pass.axis == 0) {
      smoothAlongRows(in, out, image, piece);
    } else {
      smoothAcrossRows(in, out, image, piece);
    }
  });
}

// The first pass reads the input, in its own type; the others work in place in the output.
void smooth(unsigned threads, const ImageObject& input, const Layout& layout,
            const std::vector<Pass>& passes, float* output) {
  detail::dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    runPass(threads, static_cast<const T*>(input.getBuffer()), output, layout, passes.front());
  });
  for (std::size_t i = 1; i < passes.size(); ++i) {
    runPass(threads, output, output, layout, passes[i]);
  }
}

// Without any pass the output is the input over the target, as float.
void copyTarget(unsigned threads, const ImageObject& input, const Layout& layout,
                const Region& target, float* output) {
  const long first = target.start[0];
  const long end = first + target.size[0];
  detail::dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = static_cast<const T*>(input.getBuffer());
    const unsigned axis = detail::outermostAxis(target);
    forEachSlab(threads, target, axis, axis == 0 ? static_cast<std::size_t>(target.size[0]) : 1,
                [&](const Region& part) {
                  forEachRow(layout, part, 0, [&](long offset, const std::vector<long>&) {
                    std::copy(in + offset + first, in + offset + end, output + offset + first);
                  });
                });
  });
}

bool insideAlongRowAxes(const std::vector<long>& index, const Region& region) {
  for (std::size_t axis = 1; axis < index.size(); ++axis) {
    const long i = index[axis];
    if (i < region.start[axis] || i >= region.start[axis] + region.size[axis]) return false;
  }
  return true;
}

// Clears every pixel of the output outside `target`.
void zeroOutside(float* output, const Layout& layout, const Region& target) {
  const Region whole = detail::wholeRegion(layout);
  const long first = target.start[0];
  const long end = first + target.size[0];
  const long width = layout.size[0];
  forEachRow(layout, whole, 0, [&](long offset, const std::vector<long>& index) {
    float* row = output + offset;
    if (!insideAlongRowAxes(index, target)) {
      std::fill_n(row, width, 0.0f);
      return;
    }
    std::fill(row, row + first, 0.0f);
    std::fill(row + end, row + width, 0.0f);
  });
}

}  // namespace

GaussianSmoothing::GaussianSmoothing() {
  setName("GaussianSmoothing");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("sigma", "1"));
  addParameter(detail::threadsParameter());
}

void GaussianSmoothing::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const Layout layout = layoutOf(*input);
  const std::vector<double> sigmas = sigmaPerAxis(*this, layout.size.size());
  const unsigned threads = detail::threadsFor(*this);
  const Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::shapeLike(*input, PixelType::FLOAT, *output);
  float* pixels = static_cast<float*>(output->getBuffer());
  if (target.empty()) {
    std::fill_n(pixels, output->getPixelNumber(), 0.0f);
    return;
  }
  const std::vector<Pass> passes = plan(sigmas, layout, target);
  if (passes.empty()) {
    copyTarget(threads, *input, layout, target, pixels);
  } else {
    smooth(threads, *input, layout, passes, pixels);
  }
  if (target.size != layout.size) zeroOutside(pixels, layout, target);
}

}  // namespace vorn

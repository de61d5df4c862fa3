#include "vorn/operators/Components.hpp"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <string>
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
using Index = std::uint32_t;

constexpr Index kMaxFloatLabel = Index(1) << 24;

// 1 where the input is not 0 (NaN included), or where it is 0 when `background`.
std::vector<unsigned char> pixelsWhere(const ImageObject& input, bool background) {
  std::vector<unsigned char> set(input.getPixelNumber());
  detail::dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = static_cast<const T*>(input.getBuffer());
    for (std::size_t i = 0; i < set.size(); ++i) set[i] = (in[i] != T(0)) != background;
  });
  return set;
}

// The neighbours that come earlier in memory: the last axis on which they differ goes back.
std::vector<std::vector<long>> earlierNeighbours(std::size_t axes, bool full) {
  std::vector<std::vector<long>> list;
  if (!full) {
    for (std::size_t a = 0; a < axes; ++a) {
      list.emplace_back(axes, 0);
      list.back()[a] = -1;
    }
    return list;
  }
  std::vector<long> d(axes, -1);
  while (true) {
    std::size_t last = axes;
    while (last-- > 0 && d[last] == 0) {
    }
    if (last < axes && d[last] == -1) list.push_back(d);
    std::size_t a = 0;
    for (; a < axes; ++a) {
      if (++d[a] <= 1) break;
      d[a] = -1;
    }
    if (a >= axes) return list;
  }
}

// Union-find whose root is always the first pixel of its set in memory order, so that the
// roots met in a scan number the components in the order of their first pixel.
struct Forest {
  std::vector<Index> parent;
  Index find(Index i) {
    while (parent[i] != i) {
      parent[i] = parent[parent[i]];
      i = parent[i];
    }
    return i;
  }
  void unite(Index a, Index b) {
    a = find(a);
    b = find(b);
    if (a < b) parent[b] = a;
    if (b < a) parent[a] = b;
  }
};

// Joins each set pixel of `part` to its earlier set neighbours whose index along `axis` is at
// least `from`: within a slab when `from` is its start, across its first layer when not. Runs
// along axis 0 are joined pixel to pixel, other neighbours only where a run pair starts.
void uniteNeighbours(Forest& forest, const std::vector<unsigned char>& set, const Layout& image,
                     const Region& part, const std::vector<std::vector<long>>& neighbours,
                     unsigned axis, long from) {
  detail::forEachRow(image, part, 0, [&](long offset, const std::vector<long>& index) {
    for (const std::vector<long>& d : neighbours) {
      bool inside = true;
      long shift = d[0];
      for (std::size_t a = 1; a < d.size(); ++a) {
        const long i = index[a] + d[a];
        inside = inside && i >= 0 && i < image.size[a] && (a != axis || i >= from);
        shift += d[a] * image.stride[a];
      }
      if (!inside) continue;
      const long x0 = std::max(part.start[0], axis == 0 ? from - d[0] : -d[0]);
      const long x1 = std::min(part.start[0] + part.size[0], image.size[0] - d[0]);
      const unsigned char* here = set.data() + offset;
      const unsigned char* there = here + shift;
      Index* parent = forest.parent.data();
      for (long x = x0; x < x1; ++x) {
        if (!here[x] || !there[x]) continue;
        const auto p = static_cast<Index>(offset + x);
        if (shift == -1 && parent[p] == p) {
          parent[p] = parent[p - 1];  // a pixel on its own joins the run it continues
        } else if (shift == -1 || x == x0 || !here[x - 1] || !there[x - 1]) {
          forest.unite(p, static_cast<Index>(static_cast<long>(p) + shift));
        }
        // else both pixels continue runs whose previous pixels are joined already
      }
    }
  });
}

struct Labels {
  std::vector<Index> label;  // 0 off the set, 1.. on its components
  Index count = 0;
};

// Slabs are labelled on their own in parallel, then joined across their first layers in slab
// order, then numbered in one scan: the same labels for any thread count.
Labels label(const std::vector<unsigned char>& set, const Layout& image, bool full,
             unsigned threads) {
  if (set.empty()) return Labels{};
  Forest forest;
  forest.parent.resize(set.size());
  std::iota(forest.parent.begin(), forest.parent.end(), Index(0));
  const std::vector<std::vector<long>> neighbours = earlierNeighbours(image.size.size(), full);
  const Region whole = detail::wholeRegion(image);
  const unsigned axis = detail::outermostAxis(whole);
  std::vector<unsigned char> slabStarts(static_cast<std::size_t>(image.size[axis]), 0);
  detail::parallelSlabs(threads, whole, -1u, [&](const Region& part) {
    slabStarts[static_cast<std::size_t>(part.start[axis])] = 1;
    uniteNeighbours(forest, set, image, part, neighbours, axis, part.start[axis]);
  });
  for (long s = 1; s < image.size[axis]; ++s) {
    if (!slabStarts[static_cast<std::size_t>(s)]) continue;
    uniteNeighbours(forest, set, image, detail::slab(whole, axis, s, s + 1), neighbours, axis, 0);
  }
  // Every parent comes before its child, so in one ascending scan a pixel's parent already
  // holds the label of their component: the forest becomes the labels in place.
  Labels labels;
  Index* entry = forest.parent.data();
  for (std::size_t i = 0; i < set.size(); ++i) {
    if (!set[i]) {
      entry[i] = 0;
    } else {
      entry[i] = entry[i] == i ? ++labels.count : entry[entry[i]];
    }
  }
  labels.label = std::move(forest.parent);
  return labels;
}

// For each label, whether any of its pixels lies on a face of the image.
std::vector<unsigned char> touchingTheBorder(const Labels& labels, const Layout& image) {
  std::vector<unsigned char> touching(labels.count + std::size_t(1), 0);
  if (labels.label.empty()) return touching;
  const long width = image.size[0];
  const auto mark = [&](long p) { touching[labels.label[static_cast<std::size_t>(p)]] = 1; };
  detail::forEachRow(image, detail::wholeRegion(image), 0,
                     [&](long offset, const std::vector<long>& index) {
                       bool edge = false;
                       for (std::size_t a = 1; a < index.size(); ++a) {
                         edge = edge || index[a] == 0 || index[a] == image.size[a] - 1;
                       }
                       if (!edge) {  // only the row's two ends lie on a face
                         mark(offset);
                         mark(offset + width - 1);
                         return;
                       }
                       for (long x = 0; x < width; ++x) mark(offset + x);
                     });
  return touching;
}

bool fullConnectivity(ProcessObject& op) {
  const std::string value = op.getParameterValue("connectivity");
  if (value != "face" && value != "full") {
    detail::throwBadParameter(op, "connectivity", value, "expected face or full");
  }
  return value == "full";
}

Layout checkedLayout(ProcessObject& op, const ImageObject& input) {
  const Layout layout = detail::layoutOf(input);
  if (static_cast<unsigned long>(layout.pixels()) > 0xffffffffUL) {
    throw std::invalid_argument(op.getName() + ": images of 2^32 pixels or more are refused");
  }
  detail::dispatchPixelType(input.getPointType(), [](auto) {});  // refuses types without pixels
  return layout;
}

template <class T>
T* allocate(const ImageObject& input, ImageObject& output, PixelType::Type type) {
  output.Allocate(type, input.getBufferedRegion());
  detail::copyGeometry(input, output);
  return static_cast<T*>(output.getBuffer());
}

void declare(ProcessObject& op, const char* name) {
  op.setName(name);
  op.addInput("ImageObject");
  op.addOutput("ImageObject");
}

}  // namespace

ConnectedComponents::ConnectedComponents() {
  declare(*this, "ConnectedComponents");
  addParameter(new Parameter("connectivity", "face"));
  addParameter(detail::threadsParameter());
}

void ConnectedComponents::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const bool full = fullConnectivity(*this);
  const unsigned threads = detail::threadsFor(*this);
  const Layout layout = checkedLayout(*this, *input);
  const Labels labels = label(pixelsWhere(*input, false), layout, full, threads);
  if (labels.count > kMaxFloatLabel) {
    throw std::invalid_argument(getName() + ": " + std::to_string(labels.count) +
                                " components; float pixels number at most 16777216 exactly");
  }
  float* out = allocate<float>(*input, *detail::outputImage(*this, 0), PixelType::FLOAT);
  std::copy(labels.label.begin(), labels.label.end(), out);
}

LargestComponents::LargestComponents() {
  declare(*this, "LargestComponents");
  addParameter(new Parameter("count", "1"));
  addParameter(new Parameter("connectivity", "face"));
  addParameter(detail::threadsParameter());
}

void LargestComponents::generateData() {
  const double wanted = detail::numberParameter(*this, "count");
  if (wanted < 1 || wanted != static_cast<double>(static_cast<long>(wanted)) || wanted > 4e9) {
    detail::throwBadParameter(*this, "count", getParameterValue("count"),
                              "expected a whole number from 1");
  }
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const bool full = fullConnectivity(*this);
  const unsigned threads = detail::threadsFor(*this);
  const Layout layout = checkedLayout(*this, *input);
  const Labels labels = label(pixelsWhere(*input, false), layout, full, threads);
  std::vector<std::uint64_t> size(labels.count + std::size_t(1), 0);
  for (Index l : labels.label) ++size[l];
  std::vector<Index> order(labels.count);
  std::iota(order.begin(), order.end(), Index(1));
  const std::size_t kept = std::min<std::size_t>(order.size(), static_cast<std::size_t>(wanted));
  std::partial_sort(
      order.begin(), order.begin() + static_cast<long>(kept), order.end(),
      [&](Index a, Index b) { return size[a] != size[b] ? size[a] > size[b] : a < b; });
  std::vector<unsigned char> keep(size.size(), 0);
  for (std::size_t k = 0; k < kept; ++k) keep[order[k]] = 1;
  unsigned char* out =
      allocate<unsigned char>(*input, *detail::outputImage(*this, 0), PixelType::UCHAR);
  for (std::size_t i = 0; i < labels.label.size(); ++i) out[i] = keep[labels.label[i]];
}

FillHoles::FillHoles() {
  declare(*this, "FillHoles");
  addParameter(detail::threadsParameter());
}

// The holes are the background components that touch no face of the image.
void FillHoles::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const unsigned threads = detail::threadsFor(*this);
  const Layout layout = checkedLayout(*this, *input);
  const Labels background = label(pixelsWhere(*input, true), layout, false, threads);
  const std::vector<unsigned char> open = touchingTheBorder(background, layout);
  unsigned char* out =
      allocate<unsigned char>(*input, *detail::outputImage(*this, 0), PixelType::UCHAR);
  for (std::size_t i = 0; i < background.label.size(); ++i) {
    const Index l = background.label[i];
    out[i] = l == 0 || !open[l];
  }
}

}  // namespace vorn

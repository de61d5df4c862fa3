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
#include "ParallelRows.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

using detail::Layout;
using Index = std::uint32_t;

constexpr Index kMaxFloatLabel = Index(1) << 24;

// A run of set pixels along axis 0: [begin, end) within its row.
struct Run {
  Index begin, end;
};

// Every run of the image in memory order; the runs of row r are first[r] .. first[r + 1].
struct Runs {
  std::vector<Run> run;
  std::vector<std::size_t> first;
};

// The runs of the pixels that are not 0 (NaN included), or that are 0 when `background`. Each
// chunk of rows collects its own runs, joined in chunk order.
template <class T>
Runs findRuns(const T* in, long width, std::size_t rows, bool background, unsigned threads) {
  Runs runs;
  runs.first.assign(rows + 1, 0);
  const std::size_t grain = detail::grainFor(static_cast<std::size_t>(width));
  std::vector<std::vector<Run>> parts((rows + grain - 1) / grain);
  detail::parallelFor(threads, rows, grain, [&](std::size_t begin, std::size_t end) {
    std::vector<Run>& list = parts[begin / grain];
    for (std::size_t r = begin; r < end; ++r) {
      const T* row = in + static_cast<long>(r) * width;
      for (long x = 0; x < width;) {
        while (x < width && (row[x] != T(0)) == background) ++x;
        const long start = x;
        while (x < width && (row[x] != T(0)) != background) ++x;
        if (x > start) list.push_back(Run{static_cast<Index>(start), static_cast<Index>(x)});
      }
      runs.first[r + 1] = list.size();
    }
  });
  std::size_t base = 0;
  for (std::size_t r = 0; r < rows; ++r) {
    if (r % grain == 0 && r > 0) base += parts[r / grain - 1].size();
    runs.first[r + 1] += base;
  }
  runs.run.reserve(runs.first[rows]);
  for (const std::vector<Run>& part : parts)
    runs.run.insert(runs.run.end(), part.begin(), part.end());
  return runs;
}

// Union-find over runs whose root is always the first run of its set in memory order, so that
// the roots met in a scan number the components in the order of their first pixel.
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

// Joins the runs of two rows that touch: overlap along axis 0, or for `diagonal` neighbour
// rows also meet at a corner.
void joinRows(Forest& forest, const Runs& runs, std::size_t row, std::size_t other,
              Index diagonal) {
  std::size_t i = runs.first[row];
  std::size_t j = runs.first[other];
  const std::size_t iEnd = runs.first[row + 1];
  const std::size_t jEnd = runs.first[other + 1];
  while (i < iEnd && j < jEnd) {
    const Run& a = runs.run[i];
    const Run& b = runs.run[j];
    if (b.end + diagonal <= a.begin) {
      ++j;
    } else if (a.end + diagonal <= b.begin) {
      ++i;
    } else {
      forest.unite(static_cast<Index>(i), static_cast<Index>(j));
      if (a.end < b.end) {
        ++i;
      } else {
        ++j;
      }
    }
  }
}

// The rows of the image as a grid over axes 1 and up, and the earlier rows each one touches.
struct RowGrid {
  std::vector<long> size;                    // per axis, axis 0 left at 1
  std::vector<long> stride;                  // rows between neighbours along each axis
  std::vector<std::vector<long>> neighbour;  // offsets per axis, the last non-zero one -1
  Index diagonal = 0;                        // 1 when rows touch at corners too
  unsigned outer = 0;                        // the outermost axis longer than one row
  std::size_t rows = 1;
};

RowGrid rowGrid(const Layout& image, bool full) {
  RowGrid grid;
  const std::size_t axes = image.size.size();
  grid.size.assign(axes, 1);
  grid.stride.assign(axes, 0);
  for (std::size_t a = 1; a < axes; ++a) {
    grid.size[a] = image.size[a];
    grid.stride[a] = image.stride[a] / image.size[0];
    if (image.size[a] > 1) grid.outer = static_cast<unsigned>(a);
    grid.rows *= static_cast<std::size_t>(image.size[a]);
  }
  grid.diagonal = full ? 1 : 0;
  std::vector<long> d(axes, -1);
  d[0] = 0;
  while (axes > 1) {
    std::size_t last = axes;
    std::size_t nonZero = 0;
    for (std::size_t a = 1; a < axes; ++a) {
      if (d[a] != 0) last = a, ++nonZero;
    }
    if (last < axes && d[last] == -1 && (full || nonZero == 1)) grid.neighbour.push_back(d);
    std::size_t a = 1;
    for (; a < axes; ++a) {
      if (++d[a] <= 1) break;
      d[a] = -1;
    }
    if (a >= axes) break;
  }
  return grid;
}

// Joins every row of [rowBegin, rowEnd) to its earlier neighbour rows whose index along the
// outer axis is at least `from`; with `crossing`, only to those one layer back along it.
void joinNeighbours(Forest& forest, const Runs& runs, const RowGrid& grid, std::size_t rowBegin,
                    std::size_t rowEnd, long from, bool crossing) {
  std::vector<long> index(grid.size.size(), 0);
  for (std::size_t r = rowBegin; r < rowEnd; ++r) {
    for (std::size_t a = 1; a < index.size(); ++a) {
      index[a] = static_cast<long>(r) / grid.stride[a] % grid.size[a];
    }
    for (const std::vector<long>& d : grid.neighbour) {
      if (crossing && d[grid.outer] != -1) continue;
      long other = static_cast<long>(r);
      bool inside = true;
      for (std::size_t a = 1; a < d.size(); ++a) {
        const long i = index[a] + d[a];
        inside = inside && i >= 0 && i < grid.size[a] && (a != grid.outer || i >= from);
        other += d[a] * grid.stride[a];
      }
      if (inside) joinRows(forest, runs, r, static_cast<std::size_t>(other), grid.diagonal);
    }
  }
}

struct Labels {
  Runs runs;
  std::vector<Index> label;  // per run, 1.. in the order of the components' first pixels
  Index count = 0;
};

// Layers along the outer axis are joined in parallel chunks, then across the chunks' first
// layers in chunk order, then numbered in one scan: the same labels for any thread count.
template <class T>
Labels label(const T* in, const Layout& image, bool background, bool full, unsigned threads) {
  Labels labels;
  if (image.pixels() == 0) return labels;
  const RowGrid grid = rowGrid(image, full);
  labels.runs = findRuns(in, image.size[0], grid.rows, background, threads);
  Forest forest;
  forest.parent.resize(labels.runs.run.size());
  std::iota(forest.parent.begin(), forest.parent.end(), Index(0));
  if (grid.outer > 0) {
    const long layers = grid.size[grid.outer];
    const std::size_t perLayer = static_cast<std::size_t>(grid.stride[grid.outer]);
    const std::size_t grain = detail::grainFor(perLayer * static_cast<std::size_t>(image.size[0]));
    detail::parallelFor(threads, static_cast<std::size_t>(layers), grain,
                        [&](std::size_t begin, std::size_t end) {
                          joinNeighbours(forest, labels.runs, grid, begin * perLayer,
                                         end * perLayer, static_cast<long>(begin), false);
                        });
    for (std::size_t s = grain; s < static_cast<std::size_t>(layers); s += grain) {
      joinNeighbours(forest, labels.runs, grid, s * perLayer, (s + 1) * perLayer, 0, true);
    }
  }
  // Every parent comes before its child, so in one ascending scan a run's parent already
  // holds the label of their component: the forest becomes the labels in place.
  Index* entry = forest.parent.data();
  for (std::size_t i = 0; i < forest.parent.size(); ++i) {
    entry[i] = entry[i] == i ? ++labels.count : entry[entry[i]];
  }
  labels.label = std::move(forest.parent);
  return labels;
}

Labels labelImage(const ImageObject& input, const Layout& image, bool background, bool full,
                  unsigned threads) {
  Labels labels;
  detail::dispatchPixelType(input.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    labels = label(static_cast<const T*>(input.getBuffer()), image, background, full, threads);
  });
  return labels;
}

// Writes every row of `out`: `off` outside the runs, value(run) on each run.
template <class T, class Value>
void writeRows(const Runs& runs, long width, unsigned threads, T* out, T off, Value value) {
  const std::size_t rows = runs.first.size() - 1;
  detail::parallelFor(threads, rows, detail::grainFor(static_cast<std::size_t>(width)),
                      [&](std::size_t begin, std::size_t end) {
                        for (std::size_t r = begin; r < end; ++r) {
                          T* row = out + static_cast<long>(r) * width;
                          std::fill_n(row, width, off);
                          for (std::size_t i = runs.first[r]; i < runs.first[r + 1]; ++i) {
                            std::fill(row + runs.run[i].begin, row + runs.run[i].end, value(i));
                          }
                        }
                      });
}

// For each label, whether any of its runs lies on a face of the image.
std::vector<unsigned char> touchingTheBorder(const Labels& labels, const Layout& image) {
  std::vector<unsigned char> touching(labels.count + std::size_t(1), 0);
  const RowGrid grid = rowGrid(image, false);
  const Runs& runs = labels.runs;
  for (std::size_t r = 0; r + 1 < runs.first.size(); ++r) {
    bool edge = false;
    for (std::size_t a = 1; a < grid.size.size(); ++a) {
      const long i = static_cast<long>(r) / grid.stride[a] % grid.size[a];
      edge = edge || i == 0 || i == grid.size[a] - 1;
    }
    for (std::size_t i = runs.first[r]; i < runs.first[r + 1]; ++i) {
      if (edge || runs.run[i].begin == 0 || runs.run[i].end == image.size[0]) {
        touching[labels.label[i]] = 1;
      }
    }
  }
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

// The output keeps its buffer from one update to the next: a fresh one costs a page fault per
// 4 KiB, a good part of the whole labelling.
template <class T>
T* allocate(const ImageObject& input, ImageObject& output, PixelType::Type type) {
  const Layout layout = detail::layoutOf(input);
  detail::allocateForRegion(output, type, input.getBufferedRegion(), layout,
                            detail::wholeRegion(layout));
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
  const Labels labels = labelImage(*input, layout, false, full, threads);
  if (labels.count > kMaxFloatLabel) {
    throw std::invalid_argument(getName() + ": " + std::to_string(labels.count) +
                                " components; float pixels number at most 16777216 exactly");
  }
  float* out = allocate<float>(*input, *detail::outputImage(*this, 0), PixelType::FLOAT);
  writeRows(labels.runs, layout.size[0], threads, out, 0.0f,
            [&](std::size_t i) { return static_cast<float>(labels.label[i]); });
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
  const Labels labels = labelImage(*input, layout, false, full, threads);
  std::vector<std::uint64_t> size(labels.count + std::size_t(1), 0);
  for (std::size_t i = 0; i < labels.label.size(); ++i) {
    size[labels.label[i]] += labels.runs.run[i].end - labels.runs.run[i].begin;
  }
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
  writeRows(labels.runs, layout.size[0], threads, out, static_cast<unsigned char>(0),
            [&](std::size_t i) { return keep[labels.label[i]]; });
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
  const Labels background = labelImage(*input, layout, true, false, threads);
  const std::vector<unsigned char> open = touchingTheBorder(background, layout);
  unsigned char* out =
      allocate<unsigned char>(*input, *detail::outputImage(*this, 0), PixelType::UCHAR);
  writeRows(background.runs, layout.size[0], threads, out, static_cast<unsigned char>(1),
            [&](std::size_t i) { return static_cast<unsigned char>(!open[background.label[i]]); });
}

}  // namespace vorn

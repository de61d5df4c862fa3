#include "vorn/operators/MedianFilter.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
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
using Key = std::uint32_t;

// Counts of keys at several levels, each entry of a level summing 64 of the level below, so
// that the k-th key is found by scanning at most 64 entries per level. Large levels come from
// calloc: only the pages the keys reach are ever touched.
class RankCounts {
 public:
  explicit RankCounts(std::size_t bins) {
    for (std::size_t size = bins;; size = (size + 63) / 64) {
      void* memory = std::calloc(size, sizeof(Key));
      if (memory == nullptr) throw std::bad_alloc();
      m_levels.emplace_back(static_cast<Key*>(memory), &std::free);
      if (size <= 64) break;
    }
  }
  void add(Key key) {
    for (auto& level : m_levels) {
      ++level.get()[key];
      key >>= 6;
    }
  }
  void remove(Key key) {
    for (auto& level : m_levels) {
      --level.get()[key];
      key >>= 6;
    }
  }
  // The key of rank k (0 for the smallest) among those counted.
  Key select(Key k) const {
    std::size_t base = 0;
    for (std::size_t l = m_levels.size(); l-- > 0;) {
      const Key* count = m_levels[l].get();
      std::size_t j = base;
      while (k >= count[j]) k -= count[j++];
      base = j * 64;
      if (l == 0) return static_cast<Key>(j);
    }
    return 0;
  }

 private:
  std::vector<std::unique_ptr<Key, void (*)(void*)>> m_levels;
};

// Counts handed to one chunk at a time: each is empty again when given back, so a chunk never
// sees another's keys, and at most one is made per thread.
class CountsPool {
 public:
  explicit CountsPool(std::size_t bins) : m_bins(bins) {}
  std::unique_ptr<RankCounts> take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_free.empty()) return std::make_unique<RankCounts>(m_bins);
    std::unique_ptr<RankCounts> counts = std::move(m_free.back());
    m_free.pop_back();
    return counts;
  }
  void giveBack(std::unique_ptr<RankCounts> counts) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_free.push_back(std::move(counts));
  }

 private:
  std::size_t m_bins;
  std::mutex m_mutex;
  std::vector<std::unique_ptr<RankCounts>> m_free;
};

// The rows a window's cross-section covers for the row at `index` (axes 1 and up), edge rows
// repeated as often as the window reaches past them.
std::vector<long> windowRows(const Layout& image, const std::vector<long>& half,
                             const std::vector<long>& index) {
  std::vector<long> rows = {0};
  for (std::size_t a = 1; a < index.size(); ++a) {
    std::vector<long> next;
    for (long o = -half[a]; o <= half[a]; ++o) {
      const long i = std::clamp(index[a] + o, 0L, image.size[a] - 1);
      for (long row : rows) next.push_back(row + i * image.stride[a]);
    }
    rows.swap(next);
  }
  return rows;
}

// Slides the window along each row of `part`: the column entering is counted, the one leaving
// uncounted, and the median read from the counts; they are empty again at the end of the row.
template <class KeyOf, class ValueOf, class T>
void medianRows(KeyOf keyOf, ValueOf valueOf, T* out, const Layout& image,
                const std::vector<long>& half, Key rank, const Region& part, RankCounts& counts) {
  const long first = part.start[0];
  const long end = first + part.size[0];
  const long last = image.size[0] - 1;
  detail::forEachRow(image, part, 0, [&](long offset, const std::vector<long>& index) {
    const std::vector<long> rows = windowRows(image, half, index);
    auto column = [&](long x, bool add) {
      const long at = std::clamp(x, 0L, last);
      for (long row : rows) {
        const Key key = keyOf(row + at);
        if (add) {
          counts.add(key);
        } else {
          counts.remove(key);
        }
      }
    };
    for (long x = first - half[0]; x <= first + half[0]; ++x) column(x, true);
    for (long x = first; x < end; ++x) {
      out[offset + x] = valueOf(counts.select(rank));
      column(x - half[0], false);
      column(x + half[0] + 1, true);
    }
    for (long x = end - half[0]; x <= end + half[0]; ++x) column(x, false);
  });
}

template <class KeyOf, class ValueOf, class T>
void medianOver(KeyOf keyOf, ValueOf valueOf, std::size_t bins, T* out, const Layout& image,
                const std::vector<long>& half, Key rank, const Region& target, unsigned threads) {
  CountsPool pool(bins);
  detail::parallelSlabs(threads, target, -1u, [&](const Region& part) {
    std::unique_ptr<RankCounts> counts = pool.take();
    medianRows(keyOf, valueOf, out, image, half, rank, part, *counts);
    pool.giveBack(std::move(counts));
  });
}

// Float bits as an unsigned key in the order of the values (NaN beyond the infinities).
Key orderedBits(float value) {
  Key bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return (bits & 0x80000000u) != 0 ? ~bits : bits | 0x80000000u;
}

// Sorts by the upper 32 bits, stably, in four passes of a byte each.
void radixSortUpper(std::vector<std::uint64_t>& items) {
  std::vector<std::uint64_t> spare(items.size());
  for (unsigned shift = 32; shift < 64; shift += 8) {
    std::vector<std::size_t> start(257, 0);
    for (std::uint64_t item : items) ++start[((item >> shift) & 255) + 1];
    for (std::size_t b = 1; b < start.size(); ++b) start[b] += start[b - 1];
    for (std::uint64_t item : items) spare[start[(item >> shift) & 255]++] = item;
    items.swap(spare);
  }
}

// FLOAT pixels become the ranks of their distinct values over `read`, `values` the table back.
void rankPixels(const float* in, const Layout& image, const Region& read, std::vector<Key>& keys,
                std::vector<float>& values) {
  std::vector<std::uint64_t> items;
  items.reserve(static_cast<std::size_t>(read.size[0]) *
                static_cast<std::size_t>(image.pixels() / image.size[0]));
  detail::forEachRow(image, read, 0, [&](long offset, const std::vector<long>&) {
    for (long x = read.start[0]; x < read.start[0] + read.size[0]; ++x) {
      const auto p = static_cast<std::uint64_t>(offset + x);
      items.push_back(std::uint64_t(orderedBits(in[p])) << 32 | p);
    }
  });
  radixSortUpper(items);
  keys.assign(static_cast<std::size_t>(image.pixels()), 0);
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::size_t p = items[i] & 0xffffffffu;
    if (i == 0 || (items[i] >> 32) != (items[i - 1] >> 32)) values.push_back(in[p]);
    keys[p] = static_cast<Key>(values.size() - 1);
  }
}

void median(const ImageObject& input, ImageObject& output, const Layout& image,
            const std::vector<long>& half, const Region& target, unsigned threads) {
  Key window = 1;
  for (long h : half) window *= static_cast<Key>(2 * h + 1);
  const Key rank = window / 2;
  const PixelType::Type type = input.getPointType();
  if (type == PixelType::UCHAR) {
    const auto* in = static_cast<const unsigned char*>(input.getBuffer());
    medianOver([in](long p) { return Key(in[p]); },
               [](Key key) { return static_cast<unsigned char>(key); }, 256,
               static_cast<unsigned char*>(output.getBuffer()), image, half, rank, target, threads);
  } else if (type == PixelType::SHORT) {
    const auto* in = static_cast<const short*>(input.getBuffer());
    medianOver([in](long p) { return static_cast<Key>(in[p] + 32768); },
               [](Key key) { return static_cast<short>(static_cast<long>(key) - 32768); }, 65536,
               static_cast<short*>(output.getBuffer()), image, half, rank, target, threads);
  } else {
    const auto* in = static_cast<const float*>(input.getBuffer());
    std::vector<Key> keys;
    std::vector<float> values;
    Region read = target;
    for (unsigned a = 0; a < half.size(); ++a) read = detail::widened(read, a, half[a], image);
    rankPixels(in, image, read, keys, values);
    medianOver([&keys](long p) { return keys[static_cast<std::size_t>(p)]; },
               [&values](Key key) { return values[key]; }, values.size(),
               static_cast<float*>(output.getBuffer()), image, half, rank, target, threads);
  }
}

std::vector<long> halfSizes(ProcessObject& op, std::size_t axes) {
  const std::vector<double> sizes = detail::numberListParameter(op, "size");
  const std::string& value = op.getParameterValue("size");
  if (sizes.size() != 1 && sizes.size() != axes) {
    detail::throwBadParameter(op, "size", value,
                              "expected 1 value or " + std::to_string(axes) + " (one per axis)");
  }
  double window = 1;
  std::vector<long> half;
  for (double size : sizes) {
    if (size < 1 || size > 2147483647.0 || size != static_cast<double>(static_cast<long>(size)) ||
        static_cast<long>(size) % 2 == 0) {
      detail::throwBadParameter(op, "size", value, "expected odd whole numbers of pixels");
    }
    half.push_back(static_cast<long>(size) / 2);
  }
  half.resize(axes, half.front());
  for (long h : half) window *= static_cast<double>(2 * h + 1);
  if (window > 2147483648.0) {
    detail::throwBadParameter(op, "size", value, "a window of more than 2^31 pixels");
  }
  return half;
}

}  // namespace

MedianFilter::MedianFilter() {
  setName("MedianFilter");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("size", "3"));
  addParameter(detail::threadsParameter());
}

void MedianFilter::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const Layout layout = detail::layoutOf(*input);
  const std::vector<long> half = halfSizes(*this, layout.size.size());
  const unsigned threads = detail::threadsFor(*this);
  const Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  if (static_cast<unsigned long>(layout.pixels()) > 0xffffffffUL) {
    throw std::invalid_argument(getName() + ": images of 2^32 pixels or more are refused");
  }
  const PixelType::Type type = input->getPointType();
  detail::dispatchPixelType(type, [](auto) {});  // refuses a type without elements first
  output->Allocate(type, input->getBufferedRegion());
  detail::copyGeometry(*input, *output);
  if (!target.empty()) median(*input, *output, layout, half, target, threads);
  if (target.size == layout.size) return;
  detail::dispatchPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    detail::zeroOutside(static_cast<T*>(output->getBuffer()), layout, target);
  });
}

}  // namespace vorn

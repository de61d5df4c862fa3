#include "vorn/operators/MedianFilter.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"
#include "Parallel.hpp"
#include "ParallelRegion.hpp"
#include "RegionOutput.hpp"
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

// Float bits as an unsigned key in the order of the values (NaN beyond the infinities).
Key orderedBits(float value) {
  Key bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return (bits & 0x80000000u) != 0 ? ~bits : bits | 0x80000000u;
}

// Sorts by the upper 32 bits, stably, in four passes of a byte each.
void radixSortUpper(std::vector<std::uint64_t>& items, std::vector<std::uint64_t>& spare) {
  spare.resize(items.size());
  for (unsigned shift = 32; shift < 64; shift += 8) {
    std::size_t start[257] = {};
    for (std::uint64_t item : items) ++start[((item >> shift) & 255) + 1];
    for (std::size_t b = 1; b < 257; ++b) start[b] += start[b - 1];
    for (std::uint64_t item : items) spare[start[(item >> shift) & 255]++] = item;
    items.swap(spare);
  }
}

// The keys of the pixels one row's windows cover (a tube of `rows` x `columns`, entry
// r * columns + c), and the value of each key. UCHAR and SHORT pixels are their own keys.
template <class T>
struct TubeKeys {
  static std::size_t bins(std::size_t) { return std::is_same_v<T, short> ? 65536 : 256; }
  void build(const T* in, const std::vector<long>& rows, long first, long columns, long last) {
    keys.resize(rows.size() * static_cast<std::size_t>(columns));
    Key* key = keys.data();
    for (long row : rows) {
      for (long c = 0; c < columns; ++c) {
        const T v = in[row + std::clamp(first + c, 0L, last)];
        *key++ = static_cast<Key>(std::is_same_v<T, short> ? v + 32768 : v);
      }
    }
  }
  T value(Key key) const {
    return static_cast<T>(std::is_same_v<T, short> ? static_cast<long>(key) - 32768 : key);
  }
  std::vector<Key> keys;
};

// FLOAT pixels become the ranks of their distinct values within the tube: few enough for the
// counts to stay in cache, whatever the values.
template <>
struct TubeKeys<float> {
  static std::size_t bins(std::size_t tube) { return tube; }
  void build(const float* in, const std::vector<long>& rows, long first, long columns, long last) {
    items.clear();
    pixels.clear();
    for (long row : rows) {
      for (long c = 0; c < columns; ++c) {
        const float v = in[row + std::clamp(first + c, 0L, last)];
        items.push_back(std::uint64_t(orderedBits(v)) << 32 | items.size());
        pixels.push_back(v);
      }
    }
    radixSortUpper(items, spare);
    keys.resize(items.size());
    values.clear();
    for (std::size_t i = 0; i < items.size(); ++i) {
      const std::size_t at = items[i] & 0xffffffffu;
      if (i == 0 || (items[i] >> 32) != (items[i - 1] >> 32)) values.push_back(pixels[at]);
      keys[at] = static_cast<Key>(values.size() - 1);
    }
  }
  float value(Key key) const { return values[key]; }
  std::vector<Key> keys;
  std::vector<float> values, pixels;
  std::vector<std::uint64_t> items, spare;
};

// Slides the window along each row of `part`: the column entering is counted, the one leaving
// uncounted, and the median read from the counts; they are empty again at the end of the row.
template <class T>
void medianRows(const T* in, T* out, const Layout& image, const std::vector<long>& half, Key rank,
                const Region& part, RankCounts& counts) {
  const long first = part.start[0];
  const long end = first + part.size[0];
  const long columns = end - first + 2 * half[0];
  TubeKeys<T> tube;
  detail::forEachRow(image, part, 0, [&](long offset, const std::vector<long>& index) {
    const std::vector<long> rows = windowRows(image, half, index);
    tube.build(in, rows, first - half[0], columns, image.size[0] - 1);
    const Key* keys = tube.keys.data();
    auto column = [&](long c, bool add) {
      for (std::size_t r = 0; r < rows.size(); ++r) {
        const Key key = keys[r * static_cast<std::size_t>(columns) + static_cast<std::size_t>(c)];
        if (add) {
          counts.add(key);
        } else {
          counts.remove(key);
        }
      }
    };
    // Column c of the tube is pixel first - half + c of the row.
    for (long c = 0; c < 2 * half[0] + 1; ++c) column(c, true);
    for (long x = first; x < end; ++x) {
      const long c = x - first;
      out[offset + x] = tube.value(counts.select(rank));
      column(c, false);
      if (c + 2 * half[0] + 1 < columns) column(c + 2 * half[0] + 1, true);
    }
    for (long c = columns - 2 * half[0]; c < columns; ++c) column(c, false);
  });
}

template <class T>
void median(const T* in, T* out, const Layout& image, const std::vector<long>& half,
            const Region& target, unsigned threads) {
  Key window = 1;
  std::size_t tube = static_cast<std::size_t>(image.size[0] + 2 * half[0]);
  for (std::size_t a = 0; a < half.size(); ++a) {
    window *= static_cast<Key>(2 * half[a] + 1);
    if (a > 0) tube *= static_cast<std::size_t>(2 * half[a] + 1);
  }
  CountsPool pool(TubeKeys<T>::bins(tube));
  detail::parallelSlabs(threads, target, -1u, [&](const Region& part) {
    std::unique_ptr<RankCounts> counts = pool.take();
    medianRows(in, out, image, half, window / 2, part, *counts);
    pool.giveBack(std::move(counts));
  });
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
  double tube = static_cast<double>(layout.size[0] + 2 * half[0]);  // a row's windows
  for (std::size_t a = 1; a < half.size(); ++a) tube *= static_cast<double>(2 * half[a] + 1);
  if (tube >= 4294967296.0) {
    detail::throwBadParameter(*this, "size", getParameterValue("size"),
                              "the windows of a row would cover 2^32 pixels or more");
  }
  const PixelType::Type type = input->getPointType();
  detail::dispatchPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    detail::shapeOutput(*output, type, input->getBufferedRegion());
    detail::copyGeometry(*input, *output);
    const T* in = static_cast<const T*>(static_cast<const ImageObject&>(*input).getBuffer());
    if (!target.empty())
      median(in, static_cast<T*>(output->getBuffer()), layout, half, target, threads);
  });
  detail::clearOutside(*output, layout, target, target, m_written);
}

std::vector<long> MedianFilter::inputHalo(unsigned int axes) { return halfSizes(*this, axes); }

}  // namespace vorn

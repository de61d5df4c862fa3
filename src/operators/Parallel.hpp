// The operators' worker pool. Pixel work splits into chunks whose boundaries depend on the
// image alone, never on the thread count, so 1, 2 or 16 threads give the same bits.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "vorn/Parameter.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {
namespace detail {

// Pixels per chunk of a pixel loop: below it the work runs inline, as a task would cost more
// than it saves. A multiple of every lane count and vector width the loops use.
constexpr std::size_t kGrainPixels = std::size_t{1} << 14;

// Items of `pixelsPerItem` pixels (lines, slices) per chunk: about kGrainPixels, at least one.
inline std::size_t grainFor(std::size_t pixelsPerItem) {
  return pixelsPerItem >= kGrainPixels ? 1 : kGrainPixels / (pixelsPerItem > 0 ? pixelsPerItem : 1);
}

// These three are exported for the tests' own operators; the header stays private.
// The `threads` parameter every pixel operator declares: empty follows setThreadCount().
VORN_OPERATORS_API Parameter* threadsParameter();
// The thread count `op` runs with: its `threads` parameter when set (0: every usable core),
// else threadCount().
// A value that is not a count throws through throwBadParameter.
VORN_OPERATORS_API unsigned int threadsFor(ProcessObject& op);

// Splits [0, count) into chunks of `grain` (the last one shorter) and runs body(begin, end) on
// up to `threads` threads, never more than the usable cores; inline when there is one chunk or
// one thread. The first exception
// a chunk throws reaches the caller after every chunk has ended.
VORN_OPERATORS_API void parallelFor(unsigned int threads, std::size_t count, std::size_t grain,
                                    const std::function<void(std::size_t, std::size_t)>& body);

// One partial per chunk, combined in chunk order on the calling thread: the same result for
// any thread count.
template <class Partial, class Map, class Combine>
Partial parallelReduce(unsigned int threads, std::size_t count, std::size_t grain, Partial zero,
                       Map map, Combine combine) {
  if (grain == 0) grain = 1;
  std::vector<Partial> partials((count + grain - 1) / grain, zero);
  parallelFor(threads, count, grain, [&](std::size_t begin, std::size_t end) {
    partials[begin / grain] = map(begin, end);
  });
  for (const Partial& partial : partials) zero = combine(zero, partial);
  return zero;
}

}  // namespace detail
}  // namespace vorn

// The operators' worker pool. Pixel work splits into chunks whose boundaries depend on the
// image alone, never on the thread count, so 1, 2 or 16 threads give the same bits.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "vorn/Parameter.hpp"
#include "vorn/ProcessObject.hpp"

namespace vorn {
namespace detail {

// The `threads` parameter every pixel operator declares: empty follows setThreadCount().
Parameter* threadsParameter();
// The thread count `op` runs with: its `threads` parameter when set, else threadCount().
// A value that is not a count throws through throwBadParameter.
unsigned int threadsFor(ProcessObject& op);

// Splits [0, count) into chunks of `grain` (the last one shorter) and runs body(begin, end) on
// up to `threads` threads; inline when there is one chunk or one thread. The first exception
// a chunk throws reaches the caller after every chunk has ended.
void parallelFor(unsigned int threads, std::size_t count, std::size_t grain,
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

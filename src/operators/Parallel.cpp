#include "Parallel.hpp"

#include <sched.h>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "OperatorSupport.hpp"
#include "vorn/operators/Threads.hpp"

#if defined(VORN_ANNOTATE_THREADS)
#include <sanitizer/tsan_interface.h>
#endif

namespace vorn {
namespace {

std::atomic<unsigned int> requestedThreads{0};

unsigned int coresInAffinity() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<unsigned int>(count);
  }
  const unsigned int hardware = std::thread::hardware_concurrency();
  return hardware > 0 ? hardware : 1;
}

// The affinity is read again at most every 100 ms: the call costs microseconds on some systems,
// as much as a small image's whole computation.
unsigned int usableCores() {
  using Clock = std::chrono::steady_clock;
  static std::atomic<unsigned int> cores{0};
  static std::atomic<Clock::rep> readAt{0};
  const Clock::rep now = Clock::now().time_since_epoch().count();
  const Clock::rep period =
      std::chrono::duration_cast<Clock::duration>(std::chrono::milliseconds(100)).count();
  unsigned int count = cores.load(std::memory_order_relaxed);
  if (count == 0 || now - readAt.load(std::memory_order_relaxed) > period) {
    count = coresInAffinity();
    cores.store(count, std::memory_order_relaxed);
    readAt.store(now, std::memory_order_relaxed);
  }
  return count;
}

}  // namespace

void setThreadCount(unsigned int count) { requestedThreads = count; }

unsigned int threadCount() {
  const unsigned int count = requestedThreads;
  return count > 0 ? count : usableCores();
}

namespace detail {

Parameter* threadsParameter() { return new Parameter("threads", ""); }

unsigned int threadsFor(ProcessObject& op) {
  const std::string value = op.getParameterValue("threads");
  if (value.empty() || value == Parameter::NoValueForIDName) return threadCount();
  unsigned int count = 0;
  const char* last = value.data() + value.size();
  const std::from_chars_result result = std::from_chars(value.data(), last, count);
  if (result.ec != std::errc() || result.ptr != last || count > 1024) {
    throwBadParameter(op, "threads", value, "expected a count from 0 to 1024 (0: every core)");
  }
  return count > 0 ? count : usableCores();
}

}  // namespace detail

namespace {

// One arena per concurrency, made on first use and kept: making one costs more than a small
// chunk of pixels. They are never destroyed, as operators may still run while statics go.
tbb::task_arena& arenaFor(unsigned int threads) {
  static std::mutex guard;
  static auto* arenas = new std::map<unsigned int, std::unique_ptr<tbb::task_arena>>();
  const std::lock_guard<std::mutex> lock(guard);
  std::unique_ptr<tbb::task_arena>& arena = (*arenas)[threads];
  if (!arena) arena = std::make_unique<tbb::task_arena>(static_cast<int>(threads));
  return *arena;
}

// A race detector sees nothing of the pool's own synchronisation: the pool's library is not
// instrumented, and neither is this file (the ThreadSanitizer build), so that the pool's inline
// code is not seen by halves. These calls tell it instead that what the caller wrote before the
// loop reaches every chunk, and what every chunk wrote reaches the caller after it.
#if defined(VORN_ANNOTATE_THREADS)
void publish(void* point) { __tsan_release(point); }
void receive(void* point) { __tsan_acquire(point); }
#else
void publish(void*) {}
void receive(void*) {}
#endif

// The state the chunks of one parallelFor share.
class ChunkRun {
 public:
  ChunkRun(std::size_t count, std::size_t grain) : m_count(count), m_grain(grain) {
    publish(&m_started);
  }

  void run(std::size_t chunk, const std::function<void(std::size_t, std::size_t)>& body) {
    receive(&m_started);
    if (!m_failed.load(std::memory_order_acquire)) {
      try {
        body(chunk * m_grain, std::min(m_count, (chunk + 1) * m_grain));
      } catch (...) {
        keep(chunk, std::current_exception());
      }
    }
    publish(&m_ended);
  }

  // After every chunk: rethrows the failure of the lowest chunk that failed, so the message
  // does not depend on which thread got there first.
  void finish() {
    receive(&m_ended);
    const std::lock_guard<std::mutex> lock(m_guard);
    if (m_failure) std::rethrow_exception(m_failure);
  }

 private:
  void keep(std::size_t chunk, std::exception_ptr failure) {
    const std::lock_guard<std::mutex> lock(m_guard);
    if (!m_failure || chunk < m_failedChunk) {
      m_failure = std::move(failure);
      m_failedChunk = chunk;
    }
    m_failed.store(true, std::memory_order_release);
  }

  std::size_t m_count;
  std::size_t m_grain;
  char m_started = 0;  // addresses for publish and receive
  char m_ended = 0;
  std::atomic<bool> m_failed{false};
  std::mutex m_guard;
  std::exception_ptr m_failure;
  std::size_t m_failedChunk = 0;
};

}  // namespace

namespace detail {

void parallelFor(unsigned int threads, std::size_t count, std::size_t grain,
                 const std::function<void(std::size_t, std::size_t)>& body) {
  if (grain == 0) grain = 1;
  const std::size_t chunks = count / grain + (count % grain != 0);
  // More threads than cores would only take turns on them.
  if (chunks > 1 && threads > 1) threads = std::min(threads, usableCores());
  if (chunks <= 1 || threads <= 1) {
    for (std::size_t begin = 0; begin < count; begin += grain) {
      body(begin, std::min(count, begin + grain));
    }
    return;
  }
  ChunkRun run(count, grain);
  arenaFor(threads).execute([&] {
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, chunks, 1),
        [&](const tbb::blocked_range<std::size_t>& range) {
          for (std::size_t chunk = range.begin(); chunk != range.end(); ++chunk) {
            run.run(chunk, body);
          }
        },
        tbb::simple_partitioner());
  });
  run.finish();
}

}  // namespace detail
}  // namespace vorn

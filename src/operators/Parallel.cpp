#include "Parallel.hpp"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <string>
#include <thread>

#include "OperatorSupport.hpp"
#include "vorn/operators/Threads.hpp"

namespace vorn {
namespace {

std::atomic<unsigned int> requestedThreads{0};

unsigned int usableCores() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<unsigned int>(count);
  }
  const unsigned int hardware = std::thread::hardware_concurrency();
  return hardware > 0 ? hardware : 1;
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
  return count > 0 ? count : threadCount();
}

// Serial for now: the chunks run in order on the calling thread.
void parallelFor(unsigned int /*threads*/, std::size_t count, std::size_t grain,
                 const std::function<void(std::size_t, std::size_t)>& body) {
  if (grain == 0) grain = 1;
  for (std::size_t begin = 0; begin < count; begin += grain) {
    body(begin, std::min(count, begin + grain));
  }
}

}  // namespace detail
}  // namespace vorn

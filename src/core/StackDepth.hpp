// Internal: how much of the calling thread's stack is left, so that recursions that grow with the
// length of a chain can stop (update) or change strategy (invalidation) before it runs out. The
// real stack is measured rather than a count of calls: frames differ greatly in size between
// optimised, Debug and sanitizer builds, and threads may have small stacks.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "core/Reentrancy.hpp"

namespace vorn {
namespace internal {

// pthread_getattr_np reads /proc for the main thread: once per thread is enough. Unknown bounds
// stay 0.
[[gnu::noinline]] inline void findStackBounds(ThreadState& thread) {
  thread.stackKnown = true;
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
  void* lowest = nullptr;
  std::size_t size = 0;
  if (pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
    thread.stackLow = reinterpret_cast<std::uintptr_t>(lowest);
    thread.stackHigh = thread.stackLow + size;
  }
  pthread_attr_destroy(&attributes);
}

// Whether less than `reserve` bytes are left below the caller's frame; a thread with a small
// stack keeps a quarter of it instead. False when the bounds are unknown, or the caller runs on
// a stack of its own making (a fiber): nothing is refused there.
inline bool stackIsLow(std::size_t reserve, ThreadState& thread = threadState()) {
  if (!thread.stackKnown) findStackBounds(thread);
  // The frame address, not a local's: sanitizers may move locals off the stack.
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  if (here <= thread.stackLow || here >= thread.stackHigh) return false;
  const std::uintptr_t size = thread.stackHigh - thread.stackLow;
  return here - thread.stackLow < std::min<std::uintptr_t>(reserve, size / 4);
}

}  // namespace internal
}  // namespace vorn

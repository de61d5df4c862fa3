// Internal: how much of the calling thread's stack is left, so that recursions that grow with the
// length of a chain can stop (update) or change strategy (invalidation) before it runs out. The
// real stack is measured rather than a count of calls: frames differ greatly in size between
// optimised, Debug and sanitizer builds, and threads may have small stacks.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vorn {
namespace internal {

struct StackBounds {
  std::uintptr_t low = 0;   // lowest address of the stack
  std::uintptr_t high = 0;  // one past the highest; 0 while unknown
};

inline StackBounds findStackBounds() {
  StackBounds bounds;
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return bounds;
  void* lowest = nullptr;
  std::size_t size = 0;
  if (pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
    bounds.low = reinterpret_cast<std::uintptr_t>(lowest);
    bounds.high = bounds.low + size;
  }
  pthread_attr_destroy(&attributes);
  return bounds;
}

// Whether less than `reserve` bytes are left below the caller's frame; a thread with a small
// stack keeps a quarter of it instead. False when the bounds are unknown, or the caller runs on
// a stack of its own making (a fiber): nothing is refused there.
inline bool stackIsLow(std::size_t reserve) {
  // pthread_getattr_np reads /proc for the main thread: once per thread is enough.
  static thread_local const StackBounds bounds = findStackBounds();
  // The frame address, not a local's: sanitizers may move locals off the stack.
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  if (here <= bounds.low || here >= bounds.high) return false;
  return here - bounds.low < std::min<std::uintptr_t>(reserve, (bounds.high - bounds.low) / 4);
}

}  // namespace internal
}  // namespace vorn

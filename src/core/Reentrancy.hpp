// Internal: what the engine needs to stay sound while the observers and computations it calls
// change the graph under it (update, invalidate, rewire or destroy other operators, or throw).
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <ios>
#include <utility>

namespace vorn {
namespace internal {

class Presence;

// What the engine keeps per thread, in one block built without code: in a shared library each
// access to a thread-local costs a call, so the hot paths fetch this once and pass it on.
struct ThreadState {
  Presence* innermost;         // the frames watching for destroyed objects, innermost first
  std::size_t walkDepth;       // invalidation scopes on the stack
  std::size_t queued;          // steps on the invalidation walks' queue
  std::size_t marked;          // non-composite operators marked by invalidation walks so far
  std::size_t compositeWalks;  // composites walking their inputs' readers
  const void* invoked;         // the operator a walk is invalidating right now
  std::size_t inLine;          // operators walked in line by the walks under way
  std::uintptr_t stackLow;     // the stack's bounds, once known (see StackDepth.hpp)
  std::uintptr_t stackHigh;
  bool stackKnown;
};

inline ThreadState& threadState() {
  static thread_local ThreadState state{};
  return state;
}

// Marks, while it lives, that a frame of this thread's stack works on `object`. The destructors
// of operators and ports call leave(), so that a frame whose object was destroyed under it (by an
// observer) stops instead of touching freed memory. The nodes live on the stack and form a
// per-thread list, innermost first; leave() costs nothing when no frame is registered.
class Presence {
 public:
  explicit Presence(const void* object, ThreadState& thread = threadState())
      : m_thread(thread), m_object(object), m_gone(false), m_outer(thread.innermost) {
    thread.innermost = this;
  }
  ~Presence() { m_thread.innermost = m_outer; }
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;

  bool gone() const { return m_gone; }

  // Tells every frame working on `object` that it is gone.
  static void leave(const void* object) {
    for (Presence* node = threadState().innermost; node != nullptr; node = node->m_outer) {
      if (node->m_object == object) node->m_gone = true;
    }
  }

 private:
  ThreadState& m_thread;
  const void* m_object;
  bool m_gone;
  Presence* m_outer;
};

// Runs steps that must all happen even when one of them throws (an invalidation cannot stop
// halfway, a registry must stay consistent): the first exception is kept for rethrow(), later
// ones are dropped.
class FirstFailure {
 public:
  template <class Step>
  void attempt(Step&& step) {
    try {
      std::forward<Step>(step)();
    } catch (...) {
      if (!m_failure) m_failure = std::current_exception();
    }
  }
  void rethrow() const {
    if (m_failure) std::rethrow_exception(m_failure);
  }

 private:
  std::exception_ptr m_failure;
};

// What update() throws when the operator it updates is destroyed under it; its name is gone
// with it.
// Out of line: it would otherwise grow the frame of update(), paid once per operator of a chain.
[[noreturn]] [[gnu::noinline]] inline void throwDestroyedDuringUpdate() {
  throw std::ios_base::failure(
      "vorn::ProcessObject::update()\nThe operator being updated was destroyed during its update "
      ": processings cannot be performed\n");
}

}  // namespace internal
}  // namespace vorn

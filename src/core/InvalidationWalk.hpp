// Internal: the walk that carries an invalidation downstream, shared by ProcessObject and
// BasePipeline (implemented in ProcessObject.cpp).
//
// The walk goes depth first: each reader of each port in ascending address order, the next one
// looked up again after each step since observers may change the set. Up to kDirectDepth nested
// invalidations, and while enough stack is left, it recurses as it always did. Deeper, a walk that
// meets a reader to invalidate queues that step and the rest of its own walk on a per-thread list
// and returns; the nearest invalidation still allowed to recurse runs the list, last queued first,
// which keeps the order depth first. So a chain of any length is invalidated with bounded stack.
// The one difference, only that deep: the code a setToInvalidated override runs after calling the
// base runs before the readers behind it are invalidated rather than after.
//
// Operators that invalidate the way ProcessObject does, with no observer, are marked by the walk
// that reaches them and their readers walked in that walk's own loop, rather than through a call
// of their own: the outcome is the same, without a frame of the stack per operator.
//
// A composite walking the readers of its inputs again, with no non-composite operator marked
// since it began (pipelines whose inputs read each other's, pass-through pipelines), would do so
// without end: that walk is not started.
//
// An invalidation cannot stop halfway (the flags downstream would lie): an exception from an
// observer or an override is kept, the walk goes on, and the first one is rethrown when the
// invalidation that was asked for has finished.
#pragma once

#include <cstddef>
#include <utility>

#include "core/Reentrancy.hpp"

namespace vorn {

class Port;
class PortProxy;
class ProcessObject;

namespace internal {

// Whose readers a walk goes through: those of the outputs, or, for a composite, those of its
// inputs (the inner operators), each set with its own rules.
enum class Readers : unsigned char { OfOutputs, OfInputs };

// One operator's invalidation on the stack, from its flag and event to the end of its walk.
class InvalidationScope {
 public:
  // `resumed`: the rest of a walk that was queued (only the queue itself passes true).
  explicit InvalidationScope(ProcessObject* op, bool resumed = false);
  ~InvalidationScope();
  InvalidationScope(const InvalidationScope&) = delete;
  InvalidationScope& operator=(const InvalidationScope&) = delete;

  // Runs `step` (the operator's event); an exception is kept for the end of the walk.
  template <class Step>
  void attempt(Step&& step) {
    m_failure.attempt(std::forward<Step>(step));
  }
  // Walks the readers from port `port`, after reader `after` (null: from the first), runs what
  // was queued if this invalidation is the one asked for, then rethrows the first exception.
  void walkReaders(Readers readers, std::size_t port = 0, PortProxy* after = nullptr);

 private:
  bool walkFrom(Readers readers, std::size_t port, PortProxy* after);
  bool canInvalidateInLine(ProcessObject* op) const;
  bool beginCompositeWalk();
  void endCompositeWalk();

  ProcessObject* m_op;
  ThreadState& m_thread;
  Presence m_presence;
  std::size_t m_mark;  // the queue's size when this scope began
  bool m_resumed;
  bool m_asked;      // not invoked by a walk: finishes everything before returning
  bool m_deferring;  // too deep to recurse: queues its steps instead
  FirstFailure m_failure;
  std::size_t m_inLineBase;  // ThreadState::inLine when the walk began
};

// ProcessObject::invalidateReadersOf: the readers of `output` by the rules of `owner`'s outputs.
void invalidateReadersOfPort(ProcessObject* owner, const Port* output);
// For ~ProcessObject: drops what the walks hold about `op`.
void forgetWalksOf(const ProcessObject* op);

}  // namespace internal
}  // namespace vorn

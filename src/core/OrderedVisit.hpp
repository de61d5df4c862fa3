// Internal: visiting an ordered set of pointers while the visit itself may change the set.
#pragma once

#include <set>

namespace vorn {
namespace internal {

// Calls visit(element) for each element of `set` in ascending order. Each step looks up the
// next element above the last one visited, so callbacks may insert or erase entries (the one
// being visited included) without invalidating the walk. Allocates nothing.
template <class T, class Visit>
void visitInOrder(const std::set<T*>& set, Visit visit) {
  for (auto it = set.begin(); it != set.end();) {
    T* const current = *it;
    visit(current);
    it = set.upper_bound(current);
  }
}

// The same walk, ended early when `stop()` answers true after a visit: the set's owner was
// destroyed by the visit, and the set with it.
template <class T, class Visit, class Stop>
void visitInOrder(const std::set<T*>& set, Visit visit, Stop stop) {
  for (auto it = set.begin(); it != set.end();) {
    T* const current = *it;
    visit(current);
    if (stop()) return;
    it = set.upper_bound(current);
  }
}

}  // namespace internal
}  // namespace vorn

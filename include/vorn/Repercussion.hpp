// vorn/Repercussion.hpp
//
// Repercussion: the process-wide switch between vorn's two modes. On (the default), update()
// pulls stale operators upstream and invalidation travels downstream. Off, update() recomputes
// only the operator asked, from the data its inputs already hold, and invalidation requests
// are ignored. A plain flag: not thread-safe, like the rest of vorn.
#pragma once

#include "vorn/Export.hpp"

namespace vorn {

// The process-wide switch between pulling updates and recomputing one operator.
class VORN_API Repercussion {
 public:
  Repercussion();
  virtual ~Repercussion();

  // Whether repercussion is on (the default).
  static bool isEnable();
  // Stores `enable` and returns the value it had before.
  static bool setEnable(bool enable);

 private:
  static bool m_isEnable;
};

}  // namespace vorn

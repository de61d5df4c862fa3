// vorn/operators/Threads.hpp
//
// How many threads the operators of vorn::operators split their pixel work across.
//
//   vorn::setThreadCount(4);  // every operator from now on, unless its `threads` says otherwise
//   vorn::setThreadCount(0);  // back to every core the process may use
//
// The core library creates no threads; only the operators' pixel loops run on workers, and
// `generateData` still returns on the calling thread when the work is done. Results are the
// same bits for every count: work is cut into pieces that depend on the image alone, and
// reductions combine their pieces in a fixed order.
#pragma once

#include "vorn/operators/Export.hpp"

namespace vorn {

// Sets the library-wide count; 0 means every core the process may use (its CPU affinity).
VORN_OPERATORS_API void setThreadCount(unsigned int count);
// The count in force, 0 resolved to the number of usable cores (at least 1).
VORN_OPERATORS_API unsigned int threadCount();

}  // namespace vorn

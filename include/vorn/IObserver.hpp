// vorn/IObserver.hpp
//
// IObserver: what a client implements to follow an operator. Each call passes the notifying
// operator. Operators never own, delete or notify the destruction of their observers; an
// observer may detach itself, or others, from inside a notification, and may update,
// invalidate, rewire or destroy operators (ProcessObject.hpp says what the engine then does).
// An exception thrown from a notification leaves through the call that caused it; from
// onInvalidated, only once the invalidation has finished, and not at all from a destructor.
#pragma once

#include "vorn/Export.hpp"

namespace vorn {

class ProcessObject;

// Listens to an operator's five events.
class VORN_API IObserver {
 public:
  virtual ~IObserver();
  // After a computation.
  virtual void onDataHasBeenGenerated(ProcessObject* op) = 0;
  // Before a computation, ahead of its "Processing with operator : " line.
  virtual void onStartComputingData(ProcessObject* op) = 0;
  // After the flag is set, before invalidation travels downstream.
  virtual void onInvalidated(ProcessObject* op) = 0;
  // After the flag is cleared.
  virtual void onValidated(ProcessObject* op) = 0;
  // Fired only by derived operators that choose to.
  virtual void onParameterHasBeenChanged(ProcessObject* op) = 0;
};

}  // namespace vorn

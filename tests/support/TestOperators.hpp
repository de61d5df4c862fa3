// Operators and observers that tests build graphs from: they record what happened to them in a
// shared log, so tests can assert the order of computations and events.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "vorn/IObserver.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"

using EventLog = std::vector<std::string>;

// An operator with `inputs` and `outputs` image ports whose computation appends "compute:<name>"
// to the log (when it has one), then runs `action` (when a test set one).
class LoggingOperator : public vorn::ProcessObject {
 public:
  LoggingOperator(const std::string& name, EventLog* log, unsigned inputs = 1, unsigned outputs = 1)
      : m_log(log) {
    setName(name);
    for (unsigned i = 0; i < inputs; ++i) addInput("ImageObject");
    for (unsigned i = 0; i < outputs; ++i) addOutput("ImageObject");
  }
  void generateData() override {
    ++computations;
    if (m_log != nullptr) m_log->push_back("compute:" + getName());
    if (action) action();
  }
  int computations = 0;
  std::function<void()> action;

 protected:
  EventLog* m_log;
};

// Calls `hook` with the event's name, as RecordingObserver writes it ("generated", "start",
// "invalidated", "validated", "parameter"), and the notifying operator.
class HookObserver : public vorn::IObserver {
 public:
  using Hook = std::function<void(const std::string& event, vorn::ProcessObject* op)>;
  explicit HookObserver(Hook hook) : m_hook(std::move(hook)) {}
  void onDataHasBeenGenerated(vorn::ProcessObject* op) override { m_hook("generated", op); }
  void onStartComputingData(vorn::ProcessObject* op) override { m_hook("start", op); }
  void onInvalidated(vorn::ProcessObject* op) override { m_hook("invalidated", op); }
  void onValidated(vorn::ProcessObject* op) override { m_hook("validated", op); }
  void onParameterHasBeenChanged(vorn::ProcessObject* op) override { m_hook("parameter", op); }

 private:
  Hook m_hook;
};

// Appends "<event>:<operator name>" to the log for each notification.
class RecordingObserver : public HookObserver {
 public:
  explicit RecordingObserver(EventLog* log)
      : HookObserver([log](const std::string& event, vorn::ProcessObject* op) {
          log->push_back(event + ":" + op->getName());
        }) {}
};

// Connects input `input` of `to` to output `output` of `from`.
inline void connect(vorn::ProcessObject& from, vorn::ProcessObject& to, unsigned input = 0,
                    unsigned output = 0) {
  to.getInputPort(input)->connectTo(from.getOutputPort(output));
}

// Gives output `output` of `op` a computed image of 4 one-byte pixels.
inline void allocateOutput(vorn::ProcessObject& op, unsigned output = 0) {
  vorn::Box box(1);
  box.m_size[0] = 4;
  boost::dynamic_pointer_cast<vorn::ImageObject>(op.getOutputPort(output)->getData())
      ->Allocate(vorn::PixelType::UCHAR, box);
}

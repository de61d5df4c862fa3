// Operators and observers that tests build graphs from: they record what happened to them in a
// shared log, so tests can assert the order of computations and events.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "vorn/IObserver.hpp"
#include "vorn/ProcessObject.hpp"

using EventLog = std::vector<std::string>;

// An operator with `inputs` and `outputs` image ports whose computation appends "compute:<name>"
// to the log, then runs `action` when a test set one.
class LoggingOperator : public vorn::ProcessObject {
 public:
  LoggingOperator(const std::string& name, EventLog* log, unsigned inputs = 1,
                  unsigned outputs = 1);
  void generateData() override;
  int computations = 0;
  std::function<void()> action;

 private:
  EventLog* m_log;
};

// Appends "<event>:<operator name>" to the log for each of the five notifications.
class RecordingObserver : public vorn::IObserver {
 public:
  explicit RecordingObserver(EventLog* log) : m_log(log) {}
  void onDataHasBeenGenerated(vorn::ProcessObject* op) override { record("generated", op); }
  void onStartComputingData(vorn::ProcessObject* op) override { record("start", op); }
  void onInvalidated(vorn::ProcessObject* op) override { record("invalidated", op); }
  void onValidated(vorn::ProcessObject* op) override { record("validated", op); }
  void onParameterHasBeenChanged(vorn::ProcessObject* op) override { record("parameter", op); }

 private:
  void record(const char* event, vorn::ProcessObject* op);
  EventLog* m_log;
};

// Gives output `output` of `op` a computed image (one byte per pixel, `pixels` pixels).
void allocateOutput(vorn::ProcessObject& op, unsigned output = 0, unsigned long pixels = 4);

// Connects input `input` of `to` to output `output` of `from`.
void connect(vorn::ProcessObject& from, vorn::ProcessObject& to, unsigned input = 0,
             unsigned output = 0);

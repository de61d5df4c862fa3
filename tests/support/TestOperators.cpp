#include "TestOperators.hpp"

#include "vorn/ImageObject.hpp"
#include "vorn/PortProxy.hpp"

LoggingOperator::LoggingOperator(const std::string& name, EventLog* log, unsigned inputs,
                                 unsigned outputs)
    : m_log(log) {
  setName(name);
  for (unsigned i = 0; i < inputs; ++i) addInput("ImageObject");
  for (unsigned i = 0; i < outputs; ++i) addOutput("ImageObject");
}

void LoggingOperator::generateData() {
  ++computations;
  if (m_log != nullptr) m_log->push_back("compute:" + getName());
  if (action) action();
}

void allocateOutput(vorn::ProcessObject& op, unsigned output, unsigned long pixels) {
  vorn::Box box(1);
  box.m_size[0] = pixels;
  boost::dynamic_pointer_cast<vorn::ImageObject>(op.getOutputPort(output)->getData())
      ->Allocate(vorn::PixelType::UCHAR, box);
}

void RecordingObserver::record(const char* event, vorn::ProcessObject* op) {
  m_log->push_back(std::string(event) + ":" + op->getName());
}

void connect(vorn::ProcessObject& from, vorn::ProcessObject& to, unsigned input, unsigned output) {
  to.getInputPort(input)->connectTo(from.getOutputPort(output));
}

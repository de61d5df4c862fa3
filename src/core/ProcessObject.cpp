#include "vorn/ProcessObject.hpp"

#include <iostream>

#include "core/OrderedVisit.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/DataObjectFactory.hpp"
#include "vorn/IObserver.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace vorn {

ProcessObject::ProcessObject()
    : m_invalidated(true), m_parent(nullptr), m_ignorePreviousROI(false), m_isUpdating(false) {}

ProcessObject::~ProcessObject() {
  std::cout << "In process Object destructor " << m_name << " : " << static_cast<const void*>(this)
            << std::endl;
  // Each entry is nulled before its port goes, so an invalidation that comes back here while
  // the ports are being deleted never walks a deleted port.
  for (PortProxy*& input : m_inputs) {
    PortProxy* const port = input;
    input = nullptr;
    delete port;
  }
  for (Port*& output : m_outputs) {
    Port* const port = output;
    if (port == nullptr) continue;
    output = nullptr;
    if (PortData* portData = dynamic_cast<PortData*>(port)) {
      const boost::shared_ptr<DataObject> data = portData->getData();
      if (data && data->getGenerator() == this) data->setGenerator(nullptr);
    }
    delete port;
  }
  for (Parameter* parameter : m_parameters) delete parameter;
}

bool ProcessObject::isComposite() { return false; }

const std::string& ProcessObject::getName() const { return m_name; }

void ProcessObject::setName(const std::string& name) { m_name = name; }

const ProcessObject* ProcessObject::getParent() const { return m_parent; }

void ProcessObject::setParent(const ProcessObject* parent) { m_parent = parent; }

// ---- ports ----

void ProcessObject::addInput(const std::string& dataType) {
  m_inputs.push_back(new PortProxy(dataType, this));
}

void ProcessObject::addOutput(const std::string& dataType) {
  // The destructor and the generator need a data object behind every output port.
  if (!DataObjectFactory::isValidDataObectType(dataType)) return;
  PortData* port = new PortData(dataType, this);
  port->getData()->setGenerator(this);
  m_outputs.push_back(port);
}

PortProxy* ProcessObject::getInputPort(unsigned int index) {
  return index < m_inputs.size() ? m_inputs[index] : nullptr;
}

const PortProxy* ProcessObject::getInputPort(unsigned int index) const {
  return index < m_inputs.size() ? m_inputs[index] : nullptr;
}

Port* ProcessObject::getOutputPort(unsigned int index) {
  return index < m_outputs.size() ? m_outputs[index] : nullptr;
}

const Port* ProcessObject::getOutputPort(unsigned int index) const {
  return index < m_outputs.size() ? m_outputs[index] : nullptr;
}

void ProcessObject::setInputPort(unsigned int index, const Port* port) {
  if (index >= m_inputs.size()) {
    std::cout << "ProcessObject::setInputPort no input port at index " << index << std::endl;
    return;
  }
  m_inputs[index]->connectTo(port);
  setToInvalidated();
}

// Index loops here and below: observers notified along the way may add ports.
void ProcessObject::disconnectAllInputPorts() {
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    if (m_inputs[i] != nullptr) m_inputs[i]->disconnect();
  }
}

void ProcessObject::disconnectAllOutputPorts() {
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    if (PortProxy* proxy = dynamic_cast<PortProxy*>(m_outputs[i])) proxy->disconnect();
    if (m_outputs[i] != nullptr) m_outputs[i]->disconnectAttachedProxies();
  }
}

void ProcessObject::disconnectAllPorts() {
  disconnectAllInputPorts();
  disconnectAllOutputPorts();
}

// ---- observers ----

void ProcessObject::attachObserver(IObserver* observer) { m_observers.insert(observer); }

void ProcessObject::detachObserver(IObserver* observer) { m_observers.erase(observer); }

void ProcessObject::fireOnDataHasBeenGenerated() {
  internal::visitInOrder(m_observers, [this](IObserver* o) { o->onDataHasBeenGenerated(this); });
}

void ProcessObject::fireOnStartComputingData() {
  internal::visitInOrder(m_observers, [this](IObserver* o) { o->onStartComputingData(this); });
}

void ProcessObject::fireOnInvalidated() {
  internal::visitInOrder(m_observers, [this](IObserver* o) { o->onInvalidated(this); });
}

void ProcessObject::fireOnValidated() {
  internal::visitInOrder(m_observers, [this](IObserver* o) { o->onValidated(this); });
}

void ProcessObject::fireOnParameterHasBeenChanged() {
  internal::visitInOrder(m_observers, [this](IObserver* o) { o->onParameterHasBeenChanged(this); });
}

void ProcessObject::notifyDataHasBeenGenerated() { fireOnDataHasBeenGenerated(); }

// ---- invalidation ----

bool ProcessObject::isInvalidated() { return m_invalidated; }

void ProcessObject::setToValidated() {
  m_invalidated = false;
  fireOnValidated();
}

void ProcessObject::setToInvalidated() {
  if (!Repercussion::isEnable()) return;
  m_invalidated = true;
  fireOnInvalidated();
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    if (m_outputs[i] != nullptr) invalidateReadersOf(m_outputs[i]);
  }
}

void ProcessObject::invalidateReadersOf(const Port* output) {
  internal::visitInOrder(output->getAttachedProxies(), [this](PortProxy* reader) {
    ProcessObject* const op = reader->getParent();
    if (op == nullptr) return;
    if (op->isComposite()) {
      // Leaving our own pipeline through one of its outputs: mark the pipeline itself and go
      // on downstream of it, rather than back into the operators behind its inputs.
      if (op == getParent()) {
        op->ProcessObject::setToInvalidated();
      } else {
        op->setToInvalidated();
      }
    } else if (!op->isInvalidated()) {
      op->setToInvalidated();
    }
  });
}

// ---- parameters ----

void ProcessObject::addParameter(Parameter* parameter) { m_parameters.push_back(parameter); }

std::vector<Parameter*>& ProcessObject::getParameters() { return m_parameters; }

std::vector<const Parameter*> ProcessObject::getParameters() const {
  return std::vector<const Parameter*>(m_parameters.begin(), m_parameters.end());
}

const std::string& ProcessObject::getParameterValue(const std::string& idName) {
  for (const Parameter* parameter : m_parameters) {
    if (parameter != nullptr && parameter->sameIDName(idName)) return parameter->getValue();
  }
  return Parameter::NoValueForIDName;
}

bool ProcessObject::setParameterValue(const std::string& idName, const std::string& value) {
  for (Parameter* parameter : m_parameters) {
    if (parameter != nullptr && parameter->sameIDName(idName)) {
      parameter->setValue(value);
      setToInvalidated();
      return true;
    }
  }
  return false;
}

// ---- printing ----

void ProcessObject::print() const {
  const char* const rule = "-------------------------------";
  std::cout << rule << std::endl;
  std::cout << "Operator : addr " << static_cast<const void*>(this) << "   " << m_name << std::endl;
  std::cout << " Invalidated = " << m_invalidated << std::endl;
  std::cout << " Parent     = " << static_cast<const void*>(m_parent) << std::endl;
  std::cout << rule << std::endl;
  // The labels carry the single byte 0xB0 after the letter n.
  std::cout << "--------------------- Input Ports ---------------" << std::endl;
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    std::cout << "Input Port n\xB0" << i << " ";
    m_inputs[i]->print();
    std::cout << std::endl;
  }
  std::cout << "--------------------- Output Ports ---------------" << std::endl;
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    std::cout << "Output Port n\xB0" << i << " ";
    m_outputs[i]->print();
    std::cout << std::endl;
  }
  std::cout << "---------------------  Parameters ---------------" << std::endl;
  for (std::size_t i = 0; i < m_parameters.size(); ++i) {
    std::cout << "Paramter n\xB0" << i << " ";
    if (m_parameters[i] != nullptr) m_parameters[i]->print();
    std::cout << std::endl;
  }
  std::cout << rule << std::endl;
}

}  // namespace vorn

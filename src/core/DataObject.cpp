#include "vorn/DataObject.hpp"

#include <ios>
#include <iostream>

#include "vorn/ProcessObject.hpp"

namespace vorn {

DataObject::DataObject() : m_generator(nullptr) {}

DataObject::DataObject(ProcessObject* generator) : m_generator(generator) {}

DataObject::~DataObject() = default;

void DataObject::update() {
  if (m_generator == nullptr || !m_generator->isInvalidated()) return;
  // Pulling from an operator still busy updating is fine (an observer may update again from
  // inside an update) unless stale operators lead back to it: that pull would never end.
  if (m_generator->isUpdating() && m_generator->isOnStaleCycle()) {
    throw std::ios_base::failure("vorn::ProcessObject::update()\nThe operator " +
                                 m_generator->getName() +
                                 " depends on its own output : processings cannot be performed\n");
  }
  m_generator->update();
}

void DataObject::print() const {
  std::cout << "\n  Generator = " << static_cast<const void*>(m_generator) << std::endl;
}

bool DataObject::isUptodate() { return m_generator == nullptr || !m_generator->isInvalidated(); }

void DataObject::setGenerator(ProcessObject* generator) { m_generator = generator; }

ProcessObject* DataObject::getGenerator() const { return m_generator; }

}  // namespace vorn

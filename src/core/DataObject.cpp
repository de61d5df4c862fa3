#include "vorn/DataObject.hpp"

#include <iostream>

#include "vorn/ProcessObject.hpp"

namespace vorn {

DataObject::DataObject() : m_generator(nullptr) {}

DataObject::DataObject(ProcessObject* generator) : m_generator(generator) {}

DataObject::~DataObject() = default;

void DataObject::update() {
  if (m_generator != nullptr && m_generator->isInvalidated()) m_generator->update();
}

void DataObject::print() const {
  std::cout << "\n  Generator = " << static_cast<const void*>(m_generator) << std::endl;
}

bool DataObject::isUptodate() { return m_generator == nullptr || !m_generator->isInvalidated(); }

void DataObject::setGenerator(ProcessObject* generator) { m_generator = generator; }

ProcessObject* DataObject::getGenerator() const { return m_generator; }

}  // namespace vorn

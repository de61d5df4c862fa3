#include "vorn/PortData.hpp"

#include <cstdlib>
#include <iostream>
#include <typeinfo>

#include "vorn/DataObject.hpp"
#include "vorn/DataObjectFactory.hpp"
#include "vorn/PortProxy.hpp"

namespace vorn {

PortData::PortData(const std::string& dataType, ProcessObject* parent)
    : Port(dataType, parent), m_data(DataObjectFactory::createInstance(dataType)) {}

PortData::~PortData() { m_data.reset(); }

void PortData::print() const {
  std::cout << "PortData : " << static_cast<const void*>(this) << std::endl;
  if (m_data) m_data->print();
}

boost::shared_ptr<DataObject> PortData::getData() const { return m_data; }

void PortData::setData(boost::shared_ptr<DataObject> data) {
  if (!data) {
    std::cout << "PortData::setData empty data object refused" << std::endl;
    return;
  }
  if (data->m_dataObjectName != m_relatedDataType) {
    std::cout << "PortData::setData incoherent connexion" << std::endl;
    std::exit(1);
  }
  // The data that leaves the port must not keep naming an operator that may go before it.
  if (m_data && m_data != data && m_data->getGenerator() == m_parent) m_data->setGenerator(nullptr);
  m_data = data;
}

namespace internal {

DataObject* peekData(const Port* port, boost::shared_ptr<DataObject>& holder) {
  // Only the exact types: a derived port may answer getData() its own way. Their type_info
  // objects are compared by address, which is the cheap check; should they ever not be unique,
  // getData() still answers.
  while (port != nullptr && &typeid(*port) == &typeid(PortProxy)) {
    port = static_cast<const PortProxy*>(port)->PortProxy::getConnection();
  }
  if (port == nullptr) return nullptr;
  if (&typeid(*port) == &typeid(PortData)) return static_cast<const PortData*>(port)->m_data.get();
  holder = port->getData();
  return holder.get();
}

}  // namespace internal
}  // namespace vorn

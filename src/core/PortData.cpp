#include "vorn/PortData.hpp"

#include <cstdlib>
#include <iostream>

#include "vorn/DataObject.hpp"
#include "vorn/DataObjectFactory.hpp"

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

}  // namespace vorn

#include "vorn/DataObjectFactory.hpp"

#include <iostream>

#include "vorn/ImageObject.hpp"

namespace vorn {

DataObjectFactory::~DataObjectFactory() = default;

DataObject* DataObjectFactory::createInstance(const std::string& type) {
  if (type == "ImageObject") return new ImageObject();
  std::cout << "DataObjectFactory::createInstance Unkown DataObjectType" << std::endl;
  return nullptr;
}

bool DataObjectFactory::isValidDataObectType(const std::string& type) {
  if (type == "ImageObject") return true;
  std::cout << "DataObjectFactory::isValidDataObectType Unkown DataObjectType" << std::endl;
  return false;
}

}  // namespace vorn

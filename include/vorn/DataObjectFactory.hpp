// vorn/DataObjectFactory.hpp
//
// DataObjectFactory: makes a data object from its data type name. The only name it knows is
// "ImageObject".
#pragma once

#include <string>

#include "vorn/Export.hpp"

namespace vorn {

class DataObject;

// Makes data objects from their type names ("ImageObject").
class VORN_API DataObjectFactory {
 public:
  virtual ~DataObjectFactory();

  // A new default ImageObject for "ImageObject", owned by the caller. Any other name writes
  // "DataObjectFactory::createInstance Unkown DataObjectType" and returns null.
  static DataObject* createInstance(const std::string& type);
  // True for "ImageObject"; any other name writes
  // "DataObjectFactory::isValidDataObectType Unkown DataObjectType" and returns false.
  static bool isValidDataObectType(const std::string& type);
};

}  // namespace vorn

// vorn/PortData.hpp
//
// PortData: an output port. It creates its data object through the DataObjectFactory from its
// data type name when it is built, and shares it with every caller of getData(). The operator
// that adds the port records itself as the data object's generator.
#pragma once

#include <boost/shared_ptr.hpp>

#include "vorn/Port.hpp"

namespace vorn {

namespace internal {
// The engine's look at the data an input or output port leads to, without taking a share of it
// (each share is two atomic counts, paid per input at every update). Any port type other than
// vorn's own answers through getData(), whose result `holder` keeps alive.
DataObject* peekData(const Port* port, boost::shared_ptr<DataObject>& holder);
}  // namespace internal

// An output port: owns the data object its operator generates.
class VORN_API PortData : public Port {
 public:
  // For a data type the factory does not know, the factory says so and the port holds no data.
  PortData(const std::string& dataType, ProcessObject* parent);
  ~PortData() override;

  // "PortData : <address>", then the data object's own print (nothing more when there is none).
  void print() const override;
  boost::shared_ptr<DataObject> getData() const override;

  // Replaces the held data object. A data object of another type name writes
  // "PortData::setData incoherent connexion" and ends the process with exit(1). An empty
  // pointer is refused with one line and changes nothing. Sets no generator, invalidates
  // nobody; the data it replaces stops naming this port's operator as its generator.
  void setData(boost::shared_ptr<DataObject> data);

 private:
  friend DataObject* internal::peekData(const Port*, boost::shared_ptr<DataObject>&);

  boost::shared_ptr<DataObject> m_data;  // shared with getData() callers; kept alive here
};

}  // namespace vorn

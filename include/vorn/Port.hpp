// vorn/Port.hpp
//
// Port: a connection point of an operator. A port has no name, only the data type name of the
// data objects that travel through it; two ports connect only when these names are equal
// (exact, case-sensitive). Output ports (PortData) own their data object; input ports
// (PortProxy) read the data of the port they are connected to.
//
// Every port keeps the set of input ports connected to it, ordered by address. Invariant: an
// input port Q is in that set of P exactly when Q is connected to P. PortProxy::connectTo and
// disconnect keep both sides together; a client that calls registerAttachement or
// unRegisterAttachement directly must keep the invariant itself.
//
// Lifetime: ports are created and deleted by their operator. Destroying a port disconnects the
// input ports attached to it, highest address first, which invalidates their operators.
#pragma once

#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "vorn/Export.hpp"

namespace vorn {

class DataObject;
class PortProxy;
class ProcessObject;

// An operator's typed connection point; the readers connected to it.
class VORN_API Port {
 public:
  // A port of `dataType` belonging to `parent` (its owner).
  Port(const std::string& dataType, ProcessObject* parent);
  // Data type "Unspecified DataObject", no parent.
  Port();
  virtual ~Port();
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  // "Port : this= <address>" and "Port : objecttype= <data type>", one line each.
  virtual void print() const;
  // The data available at this port; empty when there is none.
  virtual boost::shared_ptr<DataObject> getData() const = 0;

  // The data type name the port carries ("ImageObject").
  const std::string& getRelatedDataType() const;
  // The operator the port belongs to.
  const ProcessObject* getParent() const;
  // The operator the port belongs to.
  ProcessObject* getParent();
  // Number of input ports connected to this one. Constant time.
  unsigned int getNumberOfUse() const;
  // The input ports connected to this one, in ascending address order. Read-only.
  const std::set<PortProxy*>& getAttachedProxies() const;
  // Insert or remove a reader; no change when already present or absent. Logarithmic.
  void registerAttachement(PortProxy* proxy) const;
  // Removes a reader; nothing when it is absent.
  void unRegisterAttachement(PortProxy* proxy) const;
  // Disconnects every input port connected to this one, highest address first; each
  // disconnection invalidates that input port's operator. An exception from an observer is
  // rethrown once all are disconnected (the destructor drops it).
  void disconnectAttachedProxies() const;

 protected:
  std::string m_relatedDataType;                   // fixed at construction
  ProcessObject* m_parent;                         // back-pointer; the operator owns this port
  mutable std::set<PortProxy*> m_attachedProxies;  // non-owning; readers remove themselves
};

}  // namespace vorn

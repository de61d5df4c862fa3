#include "vorn/PortProxy.hpp"

#include <iostream>

#include "core/OrderedVisit.hpp"
#include "core/Reentrancy.hpp"
#include "vorn/ProcessObject.hpp"

namespace vorn {

PortProxy::PortProxy(const std::string& dataType, ProcessObject* parent)
    : Port(dataType, parent), m_connection(nullptr) {}

PortProxy::~PortProxy() {
  if (m_connection != nullptr) m_connection->unRegisterAttachement(this);
}

void PortProxy::print() const {
  Port::print();
  std::cout << "\n  ConnectedTo = " << static_cast<const void*>(m_connection) << std::endl;
}

boost::shared_ptr<DataObject> PortProxy::getData() const {
  if (m_connection == nullptr) return boost::shared_ptr<DataObject>();
  return m_connection->getData();
}

void PortProxy::connectTo(const Port* port) {
  if (port == nullptr) {
    disconnect();
    return;
  }
  if (port->getRelatedDataType() != m_relatedDataType) {
    std::cout << "PortProxy::connectTo Connection impossible because data object types differ"
              << std::endl;
    return;
  }
  if (refuseLoop(port)) return;
  // The invalidation the disconnection causes may reach observers that throw (the connection
  // is still made, then the exception rethrown), destroy either port (then it is not made) or
  // rewire the ports on the way (then the loop check is owed again).
  const internal::Presence present(this), target(port);
  internal::FirstFailure failure;
  failure.attempt([this] { disconnect(); });
  if (!present.gone() && !target.gone() && !refuseLoop(port)) {
    m_connection = port;
    port->registerAttachement(this);
  }
  failure.rethrow();
}

bool PortProxy::refuseLoop(const Port* port) const {
  if (!leadsBackHere(port)) return false;
  std::cout << "PortProxy::connectTo Connection impossible because it would close a loop of "
               "input ports"
            << std::endl;
  return true;
}

// A chain of input ports that comes back to this one would make getData() recurse forever.
bool PortProxy::leadsBackHere(const Port* port) const {
  for (const Port* link = port; link != nullptr; link = getConnection(link)) {
    if (link == this) return true;
  }
  return false;
}

void PortProxy::disconnect() {
  // The connection is left even when an observer throws; a port destroyed meanwhile left it in
  // its destructor.
  const internal::Presence present(this);
  internal::FirstFailure failure;
  failure.attempt([this] { invalidateReaders(); });
  if (!present.gone() && m_connection != nullptr) {
    m_connection->unRegisterAttachement(this);
    m_connection = nullptr;
  }
  failure.rethrow();
}

void PortProxy::invalidateReaders() {
  // Without an operator there is nobody to invalidate.
  if (m_parent == nullptr) return;
  if (!m_parent->isComposite()) {
    m_parent->setToInvalidated();
    return;
  }
  const internal::Presence present(this);
  internal::FirstFailure failure;
  internal::visitInOrder(
      m_attachedProxies,
      [&failure](PortProxy* reader) {
        if (ProcessObject* op = reader->getParent()) {
          failure.attempt([op] { op->setToInvalidated(); });
        }
      },
      [&present] { return present.gone(); });
  failure.rethrow();
}

bool PortProxy::isConnectedTo(const Port* port) const { return m_connection == port; }

const Port* PortProxy::getConnection() const { return m_connection; }

Port* PortProxy::getConnection() { return const_cast<Port*>(m_connection); }

const Port* PortProxy::getConnection(const Port* port) {
  const PortProxy* proxy = dynamic_cast<const PortProxy*>(port);
  return proxy == nullptr ? nullptr : proxy->getConnection();
}

}  // namespace vorn

#include "vorn/PortProxy.hpp"

#include <iostream>

#include "core/OrderedVisit.hpp"
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
  if (leadsBackHere(port)) {
    std::cout << "PortProxy::connectTo Connection impossible because it would close a loop of "
                 "input ports"
              << std::endl;
    return;
  }
  disconnect();
  m_connection = port;
  port->registerAttachement(this);
}

// A chain of input ports that comes back to this one would make getData() recurse forever.
bool PortProxy::leadsBackHere(const Port* port) const {
  for (const Port* link = port; link != nullptr; link = getConnection(link)) {
    if (link == this) return true;
  }
  return false;
}

void PortProxy::disconnect() {
  invalidateReaders();
  if (m_connection != nullptr) {
    m_connection->unRegisterAttachement(this);
    m_connection = nullptr;
  }
}

void PortProxy::invalidateReaders() {
  // Without an operator there is nobody to invalidate.
  if (m_parent == nullptr) return;
  if (!m_parent->isComposite()) {
    m_parent->setToInvalidated();
    return;
  }
  internal::visitInOrder(m_attachedProxies, [](PortProxy* reader) {
    if (ProcessObject* op = reader->getParent()) op->setToInvalidated();
  });
}

bool PortProxy::isConnectedTo(const Port* port) const { return m_connection == port; }

const Port* PortProxy::getConnection() const { return m_connection; }

Port* PortProxy::getConnection() { return const_cast<Port*>(m_connection); }

const Port* PortProxy::getConnection(const Port* port) {
  const PortProxy* proxy = dynamic_cast<const PortProxy*>(port);
  return proxy == nullptr ? nullptr : proxy->getConnection();
}

}  // namespace vorn

#include "vorn/Port.hpp"

#include <iostream>

#include "vorn/PortProxy.hpp"

namespace vorn {

Port::Port(const std::string& dataType, ProcessObject* parent)
    : m_relatedDataType(dataType), m_parent(parent) {}

Port::Port() : m_relatedDataType("Unspecified DataObject"), m_parent(nullptr) {}

Port::~Port() { disconnectAttachedProxies(); }

void Port::print() const {
  std::cout << "Port : this= " << static_cast<const void*>(this) << std::endl;
  std::cout << "Port : objecttype= " << m_relatedDataType << std::endl;
}

const std::string& Port::getRelatedDataType() const { return m_relatedDataType; }

const ProcessObject* Port::getParent() const { return m_parent; }

ProcessObject* Port::getParent() { return m_parent; }

unsigned int Port::getNumberOfUse() const {
  return static_cast<unsigned int>(m_attachedProxies.size());
}

const std::set<PortProxy*>& Port::getAttachedProxies() const { return m_attachedProxies; }

void Port::registerAttachement(PortProxy* proxy) const { m_attachedProxies.insert(proxy); }

void Port::unRegisterAttachement(PortProxy* proxy) const { m_attachedProxies.erase(proxy); }

void Port::disconnectAttachedProxies() const {
  while (!m_attachedProxies.empty()) {
    PortProxy* const last = *m_attachedProxies.rbegin();
    last->disconnect();
    // A reader registered by hand without being connected here would stay forever.
    m_attachedProxies.erase(last);
  }
}

}  // namespace vorn

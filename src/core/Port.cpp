#include "vorn/Port.hpp"

#include <iostream>

#include "core/Reentrancy.hpp"
#include "vorn/PortProxy.hpp"

namespace vorn {

Port::Port(const std::string& dataType, ProcessObject* parent)
    : m_relatedDataType(dataType), m_parent(parent) {}

Port::Port() : m_relatedDataType("Unspecified DataObject"), m_parent(nullptr) {}

Port::~Port() {
  // A destructor must not throw: an observer's exception from the invalidation of the readers
  // is dropped (every reader is still disconnected first).
  try {
    disconnectAttachedProxies();
  } catch (...) {
  }
  internal::Presence::leave(this);
}

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
  // Observers of the readers may throw (the others are still disconnected, then the first
  // exception rethrown) or destroy this port (its destructor finishes the job).
  const internal::Presence present(this);
  internal::FirstFailure failure;
  while (!m_attachedProxies.empty()) {
    PortProxy* const last = *m_attachedProxies.rbegin();
    failure.attempt([last] { last->disconnect(); });
    if (present.gone()) break;
    // A reader registered by hand without being connected here would stay forever.
    m_attachedProxies.erase(last);
  }
  failure.rethrow();
}

}  // namespace vorn

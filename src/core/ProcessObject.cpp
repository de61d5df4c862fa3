#include "vorn/ProcessObject.hpp"

namespace vorn {

ProcessObject::ProcessObject() : m_invalidated(true) {}

ProcessObject::~ProcessObject() = default;

void ProcessObject::update() {
  if (!m_invalidated) return;
  generateData();
  m_invalidated = false;
}

bool ProcessObject::isInvalidated() { return m_invalidated; }

}  // namespace vorn

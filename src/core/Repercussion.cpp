#include "vorn/Repercussion.hpp"

namespace vorn {

bool Repercussion::m_isEnable = true;

Repercussion::Repercussion() = default;

Repercussion::~Repercussion() = default;

bool Repercussion::isEnable() { return m_isEnable; }

bool Repercussion::setEnable(bool enable) {
  const bool previous = m_isEnable;
  m_isEnable = enable;
  return previous;
}

}  // namespace vorn

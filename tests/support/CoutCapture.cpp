#include "CoutCapture.hpp"

#include <iostream>

CoutCapture::CoutCapture() : m_previous(std::cout.rdbuf(m_buffer.rdbuf())) {}

CoutCapture::~CoutCapture() { std::cout.rdbuf(m_previous); }

std::string CoutCapture::str() const { return m_buffer.str(); }

std::string CoutCapture::take() {
  std::string text = m_buffer.str();
  m_buffer.str(std::string());
  return text;
}

std::string addressText(const void* pointer) {
  std::ostringstream os;
  os << pointer;
  return os.str();
}

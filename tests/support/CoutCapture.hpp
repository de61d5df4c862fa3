// CoutCapture: collects everything written to std::cout while it lives, so tests can compare
// vorn's printed output byte for byte; and helpers for what a call prints or throws.
#pragma once

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

class CoutCapture {
 public:
  CoutCapture() : m_previous(std::cout.rdbuf(m_buffer.rdbuf())) {}
  ~CoutCapture() { std::cout.rdbuf(m_previous); }
  CoutCapture(const CoutCapture&) = delete;
  CoutCapture& operator=(const CoutCapture&) = delete;

  std::string str() const { return m_buffer.str(); }
  // Returns what was captured so far and starts again from empty.
  std::string take() {
    std::string text = m_buffer.str();
    m_buffer.str(std::string());
    return text;
  }

 private:
  std::ostringstream m_buffer;
  std::streambuf* m_previous;
};

// An address as std::cout writes a const void*, for building expected texts.
inline std::string addressText(const void* pointer) {
  std::ostringstream os;
  os << pointer;
  return os.str();
}

// What `call` writes to std::cout: for an object with print(), everything it holds.
template <class Call>
std::string printedBy(const Call& call) {
  CoutCapture out;
  call();
  return out.str();
}

// The what() of the E that `call` throws, less the ": iostream error" libstdc++ appends to an
// ios_base::failure; "nothing thrown" if it returns.
template <class E = std::exception, class Call>
std::string thrownBy(const Call& call) {
  try {
    call();
  } catch (const E& e) {
    const std::string what = e.what();
    return what.substr(0, what.rfind(": iostream error"));
  }
  return "nothing thrown";
}

// CoutCapture: collects everything written to std::cout while it lives, so tests can compare
// vorn's printed output byte for byte.
#pragma once

#include <sstream>
#include <string>

class CoutCapture {
 public:
  CoutCapture();
  ~CoutCapture();
  CoutCapture(const CoutCapture&) = delete;
  CoutCapture& operator=(const CoutCapture&) = delete;

  std::string str() const;
  // Returns what was captured so far and starts again from empty.
  std::string take();

 private:
  std::ostringstream m_buffer;
  std::streambuf* m_previous;
};

// An address as std::cout writes a const void*, for building expected texts.
std::string addressText(const void* pointer);

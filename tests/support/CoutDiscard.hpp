// CoutDiscard: throws away everything written to std::cout while it lives. For long runs (the
// stress test, the fuzz targets) where vorn's lines would only cost memory and time.
#pragma once

#include <iostream>
#include <streambuf>

class CoutDiscard {
 public:
  CoutDiscard() : m_previous(std::cout.rdbuf(&m_sink)) {}
  ~CoutDiscard() { std::cout.rdbuf(m_previous); }
  CoutDiscard(const CoutDiscard&) = delete;
  CoutDiscard& operator=(const CoutDiscard&) = delete;

 private:
  class Sink : public std::streambuf {
   protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
  };
  Sink m_sink;
  std::streambuf* m_previous;
};

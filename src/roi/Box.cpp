#include "vorn/Box.hpp"

#include <algorithm>
#include <iostream>
#include <memory>

namespace vorn {

Box::Box() : m_start(nullptr), m_size(nullptr), m_dimension(0) {}

Box::Box(unsigned int dimension) : m_start(nullptr), m_size(nullptr), m_dimension(dimension) {
  allocateBoxBuffers();
}

Box::Box(const Box& other) : m_start(nullptr), m_size(nullptr), m_dimension(other.m_dimension) {
  if (m_dimension == 0) return;
  allocateBoxBuffers();
  std::copy(other.m_start, other.m_start + m_dimension, m_start);
  std::copy(other.m_size, other.m_size + m_dimension, m_size);
}

Box::~Box() { desallocateBoxBuffers(); }

void Box::operator=(const Box& other) {
  if (m_dimension != other.m_dimension) {
    desallocateBoxBuffers();
    m_dimension = other.m_dimension;
    try {
      allocateBoxBuffers();
    } catch (...) {
      m_dimension = 0;  // keep the invariant: no axes, no arrays
      throw;
    }
  }
  // std::copy tolerates the self-assignment case, where source and destination coincide.
  std::copy(other.m_start, other.m_start + m_dimension, m_start);
  std::copy(other.m_size, other.m_size + m_dimension, m_size);
}

bool Box::operator==(const Box& other) const {
  if (m_dimension != other.m_dimension) return false;
  for (unsigned int k = 0; k < m_dimension; ++k) {
    if (m_start[k] != other.m_start[k] || m_size[k] != other.m_size[k]) return false;
  }
  return true;
}

unsigned long Box::volume() const {
  if (m_dimension == 0) return 0;
  unsigned long product = 1;
  for (unsigned int k = 0; k < m_dimension; ++k) product *= m_size[k];
  return product;
}

void Box::printSelf(std::ostream& os) const {
  os << "Box : adress = " << static_cast<const void*>(this) << std::endl;
  os << "Dimension: " << m_dimension << std::endl;
  for (unsigned int k = 0; k < m_dimension; ++k) os << "Start: " << m_start[k] << std::endl;
  for (unsigned int k = 0; k < m_dimension; ++k) os << "Size: " << m_size[k] << std::endl;
}

void Box::print() const { printSelf(std::cout); }

void Box::allocateBoxBuffers() {
  if (m_dimension == 0) {
    m_start = nullptr;
    m_size = nullptr;
    return;
  }
  // The start array is held until the size array exists, so a failing second
  // allocation leaks nothing.
  std::unique_ptr<long[]> start(new long[m_dimension]());
  m_size = new unsigned long[m_dimension]();
  m_start = start.release();
}

void Box::desallocateBoxBuffers() {
  delete[] m_start;
  m_start = nullptr;
  delete[] m_size;
  m_size = nullptr;
}

}  // namespace vorn

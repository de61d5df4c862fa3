// vorn/Box.hpp
//
// Box: an N-dimensional integer box, a start index and a size per axis. It describes the
// region an image buffer covers and the bounding box of every region of interest.
// A plain value class: copies and assignments are deep. Assignment returns void on purpose,
// so it cannot be chained.
//
// Invariant after every public operation: with m_dimension 0 both arrays are null; otherwise
// each holds exactly m_dimension elements (array new / array delete), zero when fresh.
#pragma once

#include <ostream>

#include "vorn/Export.hpp"

namespace vorn {

// An N-dimensional box of integer starts and sizes, one per axis.
class VORN_API Box {
 public:
  Box();
  // A box of `dimension` axes, starts and sizes 0.
  explicit Box(unsigned int dimension);
  // A deep copy.
  Box(const Box& other);
  ~Box();

  // Reuses the arrays when the dimensions match; self-assignment changes nothing.
  void operator=(const Box& other);
  // Same dimension, starts and sizes.
  bool operator==(const Box& other) const;

  // Product of the sizes in unsigned long arithmetic (wraps on overflow); 0 for no axes.
  // Because it wraps, never size a buffer with it: ImageObject counts its pixels checked.
  unsigned long volume() const;

  // Address, dimension, every start, then every size; one line each.
  void printSelf(std::ostream& os) const;
  // printSelf to std::cout.
  void print() const;

 private:
  // Only the constructors, the assignment and the destructor manage the arrays; a client that
  // wants other arrays assigns another box.
  // Makes both arrays for m_dimension. Frees nothing: call only when there are none.
  void allocateBoxBuffers();
  // Frees both arrays and nulls them; m_dimension is left as it is.
  void desallocateBoxBuffers();

 public:
  long* m_start;             // owning array of m_dimension starts
  unsigned long* m_size;     // owning array of m_dimension sizes
  unsigned int m_dimension;  // the number of axes
};

}  // namespace vorn

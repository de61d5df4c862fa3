// vorn/operators/LocalOperator.hpp
//
// LocalOperator: what an operator whose output pixel depends only on its inputs near that
// pixel says about itself, so that a region of an image (a tile, a chunk, a slice on screen)
// can be computed from that region of its inputs widened by a halo.
//
//   if (auto* local = dynamic_cast<vorn::LocalOperator*>(op.get())) {
//     std::vector<long> halo = local->inputHalo(3);   // pixels read beyond a box, per axis
//   }
//
// Operators that are not LocalOperators need their whole input (labels, distances, anything
// that changes the grid) or reduce it (statistics).
#pragma once

#include <vector>

#include "vorn/operators/Export.hpp"

namespace vorn {

// Implemented beside ProcessObject by the operators whose work is local.
class VORN_OPERATORS_API LocalOperator {
 public:
  virtual ~LocalOperator();
  // Pixels read beyond an output box on each side of each of `axes` axes, from every input,
  // for the current parameters (which it checks, throwing like generateData would). All
  // zeros for an operator working pixel by pixel.
  virtual std::vector<long> inputHalo(unsigned int axes) = 0;

  // The box of an output buffer that may hold pixels other than 0 after an update of a region
  // of interest (start and size per axis), and that buffer's address and pixel type. An output
  // kept across updates then needs only this box cleared, not the whole image.
  struct WrittenBox {
    // The buffer the box is of; another buffer holds pixels nothing is known of.
    const void* buffer = nullptr;
    // Its pixel type then (a PixelType::Type).
    int type = -1;
    // First pixel of the box per axis.
    std::vector<long> start;
    // Pixels of the box per axis.
    std::vector<long> size;
  };

 protected:
  // What the last update left in output 0; the operators computing a region keep it.
  WrittenBox m_written;
};

}  // namespace vorn

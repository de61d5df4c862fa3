// vorn/operators/Morphology.hpp
//
// Erosion, Dilation, Opening and Closing: grey-level morphology of an N-dimensional image
// (UCHAR, SHORT or FLOAT) with a ball or a box, into an image of the input's pixel type, box and
// geometry. On a mask of 0 and 1 they are binary morphology.
//
//   vorn::Opening open;
//   open.setParameterValue("radius", "2");        // a ball of radius 2 pixels
//   open.setParameterValue("radius", "3,3,1");    // an ellipsoid, axis 0 first
//   open.setParameterValue("shape", "box");       // the box of 2 r + 1 pixels per axis
//
// Erosion is the minimum over the footprint centred on each pixel, dilation the maximum,
// opening a dilation of the erosion and closing an erosion of the dilation. The ball holds the
// pixels o with sum over axes of (o / radius)^2 <= 1 (an axis of radius 0 is not entered); the
// box the pixels with |o| <= floor(radius) on every axis. Beyond the image the edge pixel
// repeats, as scipy.ndimage.grey_erosion and its siblings with mode='nearest' (which is the
// same as leaving those pixels out). Boxes are separable passes, balls per-row chords; each
// row of either costs the same for any radius (van Herk / Gil-Werman), so a ball's cost grows
// as its cross-section, not its volume.
//
// Parameters:
//   radius   "1"     in pixels, 0 to 1e6: one value for every axis or one per axis
//   shape    "ball"  ball or box
//   threads  ""      worker threads (empty: vorn::setThreadCount); any count gives the same bits
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed, exactly as the whole image gives it there, and the rest
// of the output is 0. A bad parameter fails the update and leaves the output as it was. NaN
// pixels of a FLOAT image make the minimum or maximum of their footprints unspecified.
#pragma once

#include <vector>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// The minimum over the footprint (grey erosion).
class VORN_OPERATORS_API Erosion : public ProcessObject, public LocalOperator {
 public:
  Erosion();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

// The maximum over the footprint (grey dilation).
class VORN_OPERATORS_API Dilation : public ProcessObject, public LocalOperator {
 public:
  Dilation();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

// The dilation of the erosion: removes bright detail smaller than the footprint.
class VORN_OPERATORS_API Opening : public ProcessObject, public LocalOperator {
 public:
  Opening();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;

 private:
  // The first filter's result, kept from one update to the next: a fresh buffer of the
  // image's size costs more in page faults than a radius-1 filter does in arithmetic.
  std::vector<char> m_between;
};

// The erosion of the dilation: removes dark detail smaller than the footprint.
class VORN_OPERATORS_API Closing : public ProcessObject, public LocalOperator {
 public:
  Closing();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;

 private:
  // The first filter's result, kept from one update to the next: a fresh buffer of the
  // image's size costs more in page faults than a radius-1 filter does in arithmetic.
  std::vector<char> m_between;
};

}  // namespace vorn

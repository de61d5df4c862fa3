// vorn/operators/Components.hpp
//
// ConnectedComponents, LargestComponents and FillHoles: the connected parts of the non-zero
// pixels of an N-dimensional image (UCHAR, SHORT or FLOAT; any non-zero value, NaN included,
// is foreground), over the whole image.
//
//   vorn::LargestComponents largest;
//   largest.setParameterValue("count", "1");   // the biggest part, as a mask of 0 and 1
//
// ConnectedComponents writes a FLOAT image: 0 on the background, 1, 2, ... on each component,
// numbered in the memory order of their first pixel (axis 0 fastest), as scipy.ndimage.label.
// Floats hold every whole number up to 2^24 exactly, so an image with more components than
// 16777216 fails the update and leaves the output as it was.
// LargestComponents writes a UCHAR mask of 0 and 1: the `count` components with the most
// pixels, a tie going to the lower label (fewer components than `count`: all of them).
// FillHoles writes a UCHAR mask of 0 and 1: the foreground plus every background part (face
// connectivity) that does not touch the image's border, as scipy.ndimage.binary_fill_holes.
//
// Parameters:
//   connectivity  "face"  ConnectedComponents and LargestComponents: face (pixels sharing a
//                         face, 2 N neighbours) or full (sharing any corner, 3^N - 1)
//   count         "1"     LargestComponents: how many components to keep, 1 or more
//   threads       ""      worker threads (empty: vorn::setThreadCount); any count gives the same
//                         bits
//
// Regions of interest: a component can reach across any box, so the whole image is computed.
// Images of 2^32 pixels or more are refused.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// Labels the connected components of the non-zero pixels, into a float image.
class VORN_OPERATORS_API ConnectedComponents : public ProcessObject {
 public:
  ConnectedComponents();
  void generateData() override;
};

// Keeps the `count` largest components, as a uchar mask.
class VORN_OPERATORS_API LargestComponents : public ProcessObject {
 public:
  LargestComponents();
  void generateData() override;
};

// Fills the holes of a mask, into a uchar mask.
class VORN_OPERATORS_API FillHoles : public ProcessObject {
 public:
  FillHoles();
  void generateData() override;
};

}  // namespace vorn

// vorn/operators/MedianFilter.hpp
//
// MedianFilter: the median of the box of `size` pixels centred on each pixel of an
// N-dimensional image (UCHAR, SHORT or FLOAT), into an image of the input's pixel type, box and
// geometry. Beyond the image the edge pixel repeats, and counts as often as it repeats, as
// scipy.ndimage.median_filter with mode='nearest'.
//
//   vorn::MedianFilter median;
//   median.setParameterValue("size", "5,5,3");   // axis 0 first; one value for every axis
//
// The window slides along axis 0 over a histogram of keys (the values themselves for UCHAR and
// SHORT; for FLOAT, the ranks of the values the row's windows cover, by a radix sort), counted
// at several levels so that the median is found in a few short scans: a step costs the pixels
// that enter and leave the window (its cross-section), not a sort of the window. FLOAT pixels
// are ranked by their bits' order: NaN sorts above +infinity (or below -infinity when
// negative) and -0 just below +0.
//
// Parameters:
//   size     "3"  odd, in pixels: one value for every axis or one per axis; a window of more
//                 than 2^31 pixels, or windows of a row covering 2^32 or more, are refused
//   threads  ""   worker threads (empty: vorn::setThreadCount); any count gives the same bits
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed, exactly as the whole image gives it there, and the rest
// of the output is 0. A bad size fails the update and leaves the output as it was. Each thread
// keeps about 30 bytes per pixel of one row's windows (FLOAT) or a 256 KiB histogram (SHORT).
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Median filter over a box, into an image of the input's type.
class VORN_OPERATORS_API MedianFilter : public ProcessObject, public LocalOperator {
 public:
  MedianFilter();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

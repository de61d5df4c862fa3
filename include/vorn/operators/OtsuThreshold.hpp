// vorn/operators/OtsuThreshold.hpp
//
// OtsuThreshold: a UCHAR mask, 1 where the pixel is above Otsu's threshold and 0 elsewhere
// (NaN included). The threshold is the centre of the histogram bin that maximises the
// between-class variance, over 256 equal bins spanning the image's range (NaN left out), as
// skimage.filters.threshold_otsu(image, nbins=256) computes it for float images. Infinities
// are left out of the range and the histogram (+inf is still above the threshold).
//
//   vorn::OtsuThreshold otsu;
//   ... update ...
//   double t = otsu.getThreshold();
//
// Parameters:
//   threshold  ""  empty: Otsu's threshold of the image; a number: that threshold, the image
//                  is only compared with it (how a run in chunks applies the threshold it
//                  merged from every chunk's histogram)
//   threads    ""  see Threads.hpp
// UCHAR and SHORT images are binned like float ones,
// 256 bins over their range (skimage counts each integer value there instead; the same bins
// for a UCHAR image spanning 0 to 255). An image of one value has that value as its threshold,
// so its mask is all 0.
//
// Regions of interest: the threshold comes from the whole image; only the bounding box of the
// output's region of interest is compared with it, the rest of the output is 0.//
// Sharp edges: an output that already owns an image of the result's type and box keeps its
// buffer, so pixels read through a pointer taken before an update are overwritten by it.
#pragma once

#include <vector>

#include "vorn/ImageObject.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// A 0/1 mask of the pixels above Otsu's threshold.
class VORN_OPERATORS_API OtsuThreshold : public ProcessObject {
 public:
  OtsuThreshold();
  void generateData() override;
  // The threshold of the last computation; 0 before the first.
  double getThreshold() const;
  // The 256 bin counts the threshold is taken from: the finite pixels of `image` binned over
  // [min, max], the top bin closed (pixels outside it go to the nearest end bin). All zero
  // unless min < max. Histograms of parts of an image over the whole image's range add up to
  // the whole image's.
  static std::vector<double> histogram(const ImageObject& image, double min, double max,
                                       unsigned threads = 1);
  // The threshold of a histogram() of an image whose finite pixels span [min, max]: min when
  // the image has one value, 0 when it has no finite one (min > max).
  static double thresholdOf(const std::vector<double>& counts, double min, double max);

 private:
  double m_threshold = 0.0;
};

}  // namespace vorn

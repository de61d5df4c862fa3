// vorn/operators/DistanceMap.hpp
//
// DistanceMap: the exact Euclidean distance of every non-zero pixel of an N-dimensional image
// (UCHAR, SHORT or FLOAT) to the nearest zero pixel, in physical units (the image's spacing),
// into a FLOAT image of the same box and geometry; zero pixels get exactly 0.
//
//   vorn::DistanceMap distance;   // scipy: distance_transform_edt(mask, sampling=spacing)
//
// Separable and linear in the number of pixels: one lower envelope of parabolas per line and
// axis (Felzenszwalb and Huttenlocher), on squared distances kept in the output between passes.
// An image without a zero pixel is +infinity everywhere. A spacing that is not positive counts
// as 1.
//
// Parameters:
//   threads  ""  worker threads (empty: vorn::setThreadCount); any count gives the same bits
//
// Regions of interest: the nearest zero can lie anywhere, so the whole image is computed.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// Euclidean distance to the nearest zero pixel, into a float image.
class VORN_OPERATORS_API DistanceMap : public ProcessObject {
 public:
  DistanceMap();
  void generateData() override;
};

}  // namespace vorn

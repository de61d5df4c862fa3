// What crop, pad, flip and permute share: each output axis reads one input axis through a
// table from output index to input index, so one gather serves all four, region of interest
// and threads included.
#pragma once

#include <string>
#include <vector>

#include "ImageRegion.hpp"
#include "OperatorSupport.hpp"

namespace vorn {
namespace detail {

// An input index that lies outside the image: the pixel takes the fill value.
constexpr long kOutside = -1;

// One output axis: the input axis it reads, and the input index of each output index.
struct AxisMap {
  unsigned inputAxis;
  std::vector<long> index;
};

// The whole output: an axis map per output axis, with the spacing and origin of each.
struct Remapping {
  std::vector<AxisMap> axes;
  std::vector<double> spacing;
  std::vector<double> origin;
};

// Axis for axis the identity of `image`: its own indices, spacing and origin.
Remapping identityRemapping(const ImageObject& image);

// Fills output 0 of `op` with `image` remapped, in the input's pixel type, computing only the
// bounding box of the output's region of interest (the rest 0). `fill` is converted to the
// pixel type as CastOperator converts.
void produceRemapped(ProcessObject& op, const ImageObject& image, const Remapping& remapping,
                     double fill, unsigned threads);

// Comma-separated whole numbers from `minimum` to `maximum`, one for every axis or one per
// axis (`axes` of them); an empty value gives `fallback` for every axis.
std::vector<long> wholeListParameter(ProcessObject& op, const std::string& name, unsigned axes,
                                     long minimum, long maximum, long fallback);

// Comma-separated whole numbers, each an axis below `axes`, none twice; empty gives none.
std::vector<unsigned> axisListParameter(ProcessObject& op, const std::string& name,
                                        unsigned axes);

}  // namespace detail
}  // namespace vorn

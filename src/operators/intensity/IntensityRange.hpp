// The range of an image's values, NaN left out, shared by the operators that adapt to it.
#pragma once

#include "OperatorSupport.hpp"

namespace vorn {
namespace detail {

struct ValueRange {
  double min;
  double max;
  bool empty() const { return !(min <= max); }  // no number in the image
};

// The smallest and largest values that are numbers (finite ones only when `finite`); empty when
// there is none.
ValueRange valueRange(const ImageObject& image, unsigned threads, bool finite = false);

}  // namespace detail
}  // namespace vorn

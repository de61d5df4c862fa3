// Conversions between the pixel types shared by every operator that lets its user pick the
// output type: the `type` parameter's names and the rounding and clamping towards integers.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>

#include "OperatorSupport.hpp"

namespace vorn {
namespace detail {

// "uchar", "short" or "float" from parameter `name`; anything else throws through
// throwBadParameter.
PixelType::Type pixelTypeParameter(ProcessObject& op, const std::string& name);

// Every value of the three pixel types is exact in a double, and so is its sum with 0.5:
// truncating that sum rounds half away from zero exactly. Clamping before the truncation gives
// the same result (the bounds are integers) and lets the truncation be the conversion itself;
// written without calls or branches, loops over it vectorise. NaN becomes 0.
template <class To>
To convertPixel(double value) {
  if constexpr (std::is_same_v<To, float>) {
    return static_cast<float>(value);
  } else {
    const double lowest = std::numeric_limits<To>::lowest();
    const double highest = std::numeric_limits<To>::max();
    const double away = std::clamp(value + std::copysign(0.5, value), lowest, highest);
    return std::isnan(value) ? To(0) : static_cast<To>(static_cast<int>(away));
  }
}

}  // namespace detail
}  // namespace vorn

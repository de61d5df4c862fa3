#include "IntensityRange.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Parallel.hpp"

namespace vorn {
namespace detail {

ValueRange valueRange(const ImageObject& image, unsigned threads, bool finite) {
  const double inf = std::numeric_limits<double>::infinity();
  return dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* pixels = static_cast<const T*>(image.getBuffer());
    // std::min and std::max keep the first argument against a NaN, so NaNs pass unseen.
    auto map = [&](std::size_t begin, std::size_t end) {
      ValueRange range{inf, -inf};
      for (std::size_t k = begin; k < end; ++k) {
        const double value = pixels[k];
        if (finite && std::isinf(value)) continue;
        range.min = std::min(range.min, value);
        range.max = std::max(range.max, value);
      }
      return range;
    };
    auto combine = [](ValueRange a, ValueRange b) {
      return ValueRange{std::min(a.min, b.min), std::max(a.max, b.max)};
    };
    return parallelReduce(threads, image.getPixelNumber(), 1 << 16, ValueRange{inf, -inf}, map,
                          combine);
  });
}

}  // namespace detail
}  // namespace vorn

#include "vorn/operators/CropOperator.hpp"

#include <algorithm>
#include <limits>
#include <string>

#include "Parallel.hpp"
#include "Remap.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {

CropOperator::CropOperator() {
  setName("CropOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("start", "0"));
  addParameter(new Parameter("size", ""));
  addParameter(detail::threadsParameter());
}

void CropOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*input);
  const unsigned axes = static_cast<unsigned>(layout.size.size());
  const long most = std::numeric_limits<long>::max();
  const std::vector<long> start = detail::wholeListParameter(*this, "start", axes, 0, most, 0);
  const std::vector<long> size = detail::wholeListParameter(*this, "size", axes, 1, most, most);
  const unsigned threads = detail::threadsFor(*this);
  detail::Remapping remapping = detail::identityRemapping(*input);
  for (unsigned axis = 0; axis < axes; ++axis) {
    const long length = layout.size[axis];
    if (start[axis] >= length) {
      detail::throwBadParameter(
          *this, "start", getParameterValue("start"),
          "axis " + std::to_string(axis) + " has only " + std::to_string(length) + " pixels");
    }
    const long kept = std::min(size[axis], length - start[axis]);
    std::vector<long>& index = remapping.axes[axis].index;
    index.assign(index.begin() + start[axis], index.begin() + start[axis] + kept);
    remapping.origin[axis] += static_cast<double>(start[axis]) * remapping.spacing[axis];
  }
  detail::produceRemapped(*this, *input, remapping, 0.0, threads);
}

}  // namespace vorn

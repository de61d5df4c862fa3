#include "vorn/operators/FlipOperator.hpp"

#include <algorithm>
#include <string>

#include "Parallel.hpp"
#include "Remap.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {

FlipOperator::FlipOperator() {
  setName("FlipOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("axes", ""));
  addParameter(detail::threadsParameter());
}

void FlipOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const unsigned axes = input->getDimension();
  std::vector<unsigned> flipped = detail::axisListParameter(*this, "axes", axes);
  if (getParameterValue("axes").empty()) {
    for (unsigned axis = 0; axis < axes; ++axis) flipped.push_back(axis);
  }
  const unsigned threads = detail::threadsFor(*this);
  detail::Remapping remapping = detail::identityRemapping(*input);
  for (unsigned axis : flipped) {
    std::vector<long>& index = remapping.axes[axis].index;
    std::reverse(index.begin(), index.end());
  }
  detail::produceRemapped(*this, *input, remapping, 0.0, threads);
}

PermuteAxes::PermuteAxes() {
  setName("PermuteAxes");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("order", ""));
  addParameter(detail::threadsParameter());
}

void PermuteAxes::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const unsigned axes = input->getDimension();
  std::vector<unsigned> order = detail::axisListParameter(*this, "order", axes);
  if (getParameterValue("order").empty()) {
    for (unsigned axis = axes; axis-- > 0;) order.push_back(axis);
  }
  if (order.size() != axes) {
    detail::throwBadParameter(
        *this, "order", getParameterValue("order"),
        "expected every axis from 0 to " + std::to_string(axes - 1) + " once");
  }
  const unsigned threads = detail::threadsFor(*this);
  const detail::Remapping identity = detail::identityRemapping(*input);
  detail::Remapping remapping;
  for (unsigned axis : order) {
    remapping.axes.push_back(identity.axes[axis]);
    remapping.spacing.push_back(identity.spacing[axis]);
    remapping.origin.push_back(identity.origin[axis]);
  }
  detail::produceRemapped(*this, *input, remapping, 0.0, threads);
}

}  // namespace vorn

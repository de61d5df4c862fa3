#include "vorn/operators/PadOperator.hpp"

#include <algorithm>
#include <string>

#include "Parallel.hpp"
#include "Remap.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

// Wider pads are typos, and would ask for more pixels than any image holds.
constexpr long kMaxPad = 1000000;

enum class Mode { Constant, Edge, Reflect };

Mode modeParameter(ProcessObject& op) {
  const std::string value = op.getParameterValue("mode");
  if (value == "constant") return Mode::Constant;
  if (value == "edge") return Mode::Edge;
  if (value == "reflect") return Mode::Reflect;
  detail::throwBadParameter(op, "mode", value, "expected constant, edge or reflect");
}

// The input index output index `j` (relative to the input's first pixel) reads. Mirroring
// about both edge pixels repeats with a period of 2 (length - 1).
long source(long j, long length, Mode mode) {
  if (j >= 0 && j < length) return j;
  if (mode == Mode::Constant) return detail::kOutside;
  if (mode == Mode::Edge || length == 1) return std::clamp(j, 0L, length - 1);
  const long period = 2 * (length - 1);
  const long k = ((j % period) + period) % period;
  return k < length ? k : period - k;
}

}  // namespace

PadOperator::PadOperator() {
  setName("PadOperator");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("before", "0"));
  addParameter(new Parameter("after", "0"));
  addParameter(new Parameter("mode", "constant"));
  addParameter(new Parameter("value", "0"));
  addParameter(detail::threadsParameter());
}

void PadOperator::generateData() {
  const detail::ImagePtr input = detail::inputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*input);
  const unsigned axes = static_cast<unsigned>(layout.size.size());
  const std::vector<long> before = detail::wholeListParameter(*this, "before", axes, 0, kMaxPad, 0);
  const std::vector<long> after = detail::wholeListParameter(*this, "after", axes, 0, kMaxPad, 0);
  const Mode mode = modeParameter(*this);
  const double value = detail::numberParameter(*this, "value");
  const unsigned threads = detail::threadsFor(*this);
  detail::Remapping remapping = detail::identityRemapping(*input);
  for (unsigned axis = 0; axis < axes; ++axis) {
    const long length = layout.size[axis];
    std::vector<long>& index = remapping.axes[axis].index;
    index.clear();
    for (long j = -before[axis]; j < length + after[axis]; ++j) {
      index.push_back(source(j, length, mode));
    }
    remapping.origin[axis] -= static_cast<double>(before[axis]) * remapping.spacing[axis];
  }
  detail::produceRemapped(*this, *input, remapping, value, threads);
}

}  // namespace vorn

#include "PixelConversion.hpp"

namespace vorn {
namespace detail {

PixelType::Type pixelTypeParameter(ProcessObject& op, const std::string& name) {
  const std::string value = op.getParameterValue(name);
  if (value == "uchar") return PixelType::UCHAR;
  if (value == "short") return PixelType::SHORT;
  if (value == "float") return PixelType::FLOAT;
  throwBadParameter(op, name, value, "expected uchar, short or float");
}

}  // namespace detail
}  // namespace vorn

#include "OperatorSupport.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>

#include "vorn/PortProxy.hpp"

namespace vorn {
namespace detail {

ImagePtr inputImage(ProcessObject& op, unsigned int index) {
  PortProxy* port = op.getInputPort(index);
  ImagePtr image;
  if (port != nullptr) image = boost::dynamic_pointer_cast<ImageObject>(port->getData());
  if (!image || image->getPointType() == PixelType::UNKNOWN) {
    throw std::invalid_argument(op.getName() + ": input " + std::to_string(index) +
                                " holds no computed image");
  }
  return image;
}

ImagePtr outputImage(ProcessObject& op, unsigned int index) {
  Port* port = op.getOutputPort(index);
  ImagePtr image;
  if (port != nullptr) image = boost::dynamic_pointer_cast<ImageObject>(port->getData());
  if (!image)
    throw std::logic_error(op.getName() + ": output " + std::to_string(index) + " holds no image");
  return image;
}

void copyGeometry(const ImageObject& from, ImageObject& to) {
  const unsigned int axes = std::min(from.getDimension(), to.getDimension());
  for (unsigned int axis = 0; axis < axes; ++axis) {
    to.setSpacing(axis, from.getSpacing(axis));
    to.setOrigin(axis, from.getOrigin(axis));
  }
}

void shapeLike(const ImageObject& input, PixelType::Type type, ImageObject& output) {
  const bool reusable = output.getManageItsBuffer() && output.getBuffer() != nullptr &&
                        output.getPointType() == type &&
                        output.getBufferedRegion() == input.getBufferedRegion();
  if (!reusable) output.Allocate(type, input.getBufferedRegion());
  copyGeometry(input, output);
}

void throwBadParameter(const ProcessObject& op, const std::string& name, const std::string& value,
                       const std::string& why) {
  throw std::invalid_argument(op.getName() + ": parameter '" + name + "' has invalid value '" +
                              value + "': " + why);
}

bool parseNumber(const std::string& text, double& value) {
  const char* first = text.data();
  const char* last = first + text.size();
  if (first != last && *first == '+') ++first;  // from_chars takes no plus sign
  const std::from_chars_result result = std::from_chars(first, last, value);
  return first != last && result.ec == std::errc() && result.ptr == last && std::isfinite(value);
}

double numberParameter(ProcessObject& op, const std::string& name) {
  const std::string value = op.getParameterValue(name);
  double number = 0.0;
  if (!parseNumber(value, number)) throwBadParameter(op, name, value, "not a finite number");
  return number;
}

std::optional<double> optionalNumberParameter(ProcessObject& op, const std::string& name) {
  if (op.getParameterValue(name).empty()) return std::nullopt;
  return numberParameter(op, name);
}

std::vector<double> numberListParameter(ProcessObject& op, const std::string& name) {
  const std::string value = op.getParameterValue(name);
  std::vector<double> numbers;
  std::size_t begin = 0;
  while (true) {
    const std::size_t comma = value.find(',', begin);
    double number = 0.0;
    if (!parseNumber(value.substr(begin, comma - begin), number)) {
      throwBadParameter(op, name, value, "expected finite numbers separated by commas");
    }
    numbers.push_back(number);
    if (comma == std::string::npos) return numbers;
    begin = comma + 1;
  }
}

void printFigures(std::ostream* stream, const std::function<void(std::ostream&)>& print) {
  if (stream == nullptr) return;
  std::ostream& os = *stream;
  const std::ios_base::fmtflags flags = os.flags();
  const std::streamsize precision = os.precision(10);
  if (stream == &std::cout) os << '\n';
  os.unsetf(std::ios_base::floatfield);
  print(os);
  os.flush();
  os.precision(precision);
  os.flags(flags);
}

}  // namespace detail
}  // namespace vorn

#include "vorn/PixelType.hpp"

namespace vorn {

unsigned int getSizeOf(const PixelType::Type& pixelType) {
  switch (pixelType) {
    case PixelType::UCHAR:
      return 1;
    case PixelType::SHORT:
      return 2;
    case PixelType::FLOAT:
      return 4;
    default:
      return 0;
  }
}

std::string getTypeIdName(const PixelType::Type& pixelType) {
  switch (pixelType) {
    case PixelType::UCHAR:
      return "unsigned char";
    case PixelType::SHORT:
      return "short int";
    case PixelType::FLOAT:
      return "float";
    default:
      return "Unknow Type : ggetTypeIdName(const PixelType::Type &pixelType)";
  }
}

PixelType::Type getPixelType(const std::string& name) {
  if (name == "unsigned char") return PixelType::UCHAR;
  if (name == "short int" || name == "signed short" || name == "short") return PixelType::SHORT;
  if (name == "float") return PixelType::FLOAT;
  return PixelType::UNKNOWN;
}

template <>
PixelType::Type returnPixelType<unsigned char>() {
  return PixelType::UCHAR;
}
template <>
PixelType::Type returnPixelType<short>() {
  return PixelType::SHORT;
}
template <>
PixelType::Type returnPixelType<float>() {
  return PixelType::FLOAT;
}

}  // namespace vorn

namespace zelTools {

template <>
bool isMapping<unsigned char, vorn::PixelType::Type>(const vorn::PixelType::Type& key) {
  return key == vorn::PixelType::UCHAR;
}
template <>
bool isMapping<short, vorn::PixelType::Type>(const vorn::PixelType::Type& key) {
  return key == vorn::PixelType::SHORT;
}
template <>
bool isMapping<float, vorn::PixelType::Type>(const vorn::PixelType::Type& key) {
  return key == vorn::PixelType::FLOAT;
}

}  // namespace zelTools

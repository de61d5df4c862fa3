#include "zelTools/TypeMapping.hpp"

namespace zelTools {

template <>
bool isMapping<signed char, std::string>(const std::string& key) {
  return key == "signed char";
}
template <>
bool isMapping<unsigned char, std::string>(const std::string& key) {
  return key == "unsigned char";
}
template <>
bool isMapping<signed short, std::string>(const std::string& key) {
  return key == "signed short";
}
template <>
bool isMapping<unsigned short, std::string>(const std::string& key) {
  return key == "unsigned short";
}
template <>
bool isMapping<signed int, std::string>(const std::string& key) {
  return key == "signed int";
}
template <>
bool isMapping<unsigned int, std::string>(const std::string& key) {
  return key == "unsigned int";
}
template <>
bool isMapping<float, std::string>(const std::string& key) {
  return key == "float";
}
template <>
bool isMapping<double, std::string>(const std::string& key) {
  return key == "double";
}

}  // namespace zelTools

// zelTools/DynamicType.hpp
//
// DynamicType: an element type chosen at run time, known by its name. The host manages eight
// element types, in this type-list order: signed char, unsigned char, signed short,
// unsigned short, signed int, unsigned int, float, double.
//
//   zelTools::DynamicType t = zelTools::makeDynamicType<float>();          // "float"
//   zelTools::DynamicType u = zelTools::makeDynamicType(std::string("signed short"));
#pragma once

#include <stdexcept>
#include <string>

#include "zelTools/TypeMapping.hpp"

namespace zelTools {

namespace detail {

// The host's name of a managed element type; any other type throws.
template <class T>
const char* typeName() {
  throw std::invalid_argument("DynamicType::setType<TYPE> incorrect TYPE");
}
template <>
inline const char* typeName<signed char>() {
  return "signed char";
}
template <>
inline const char* typeName<unsigned char>() {
  return "unsigned char";
}
template <>
inline const char* typeName<signed short>() {
  return "signed short";
}
template <>
inline const char* typeName<unsigned short>() {
  return "unsigned short";
}
template <>
inline const char* typeName<signed int>() {
  return "signed int";
}
template <>
inline const char* typeName<unsigned int>() {
  return "unsigned int";
}
template <>
inline const char* typeName<float>() {
  return "float";
}
template <>
inline const char* typeName<double>() {
  return "double";
}

}  // namespace detail

class DynamicType {
 public:
  // No type yet: the name is empty.
  DynamicType() = default;

  // Throws std::invalid_argument for a type the host does not manage.
  template <class T>
  void setType() {
    m_name = detail::typeName<T>();
  }
  const std::string& string() const { return m_name; }
  bool operator==(const DynamicType& other) const { return m_name == other.m_name; }
  bool operator!=(const DynamicType& other) const { return m_name != other.m_name; }

 private:
  std::string m_name;
};

template <class T>
DynamicType makeDynamicType() {
  DynamicType type;
  type.setType<T>();
  return type;
}

namespace detail {

template <class KEYTYPE>
DynamicType firstMapping(const KEYTYPE&) {
  throw std::invalid_argument("KeyType value incorrect : no corresponding Type in typelist");
}
template <class KEYTYPE, class T, class... Rest>
DynamicType firstMapping(const KEYTYPE& key) {
  if (isMapping<T, KEYTYPE>(key)) return makeDynamicType<T>();
  return firstMapping<KEYTYPE, Rest...>(key);
}

}  // namespace detail

// The first element type of the type list that `key` designates (isMapping); throws
// std::invalid_argument when none does.
template <class KEYTYPE>
DynamicType makeDynamicType(const KEYTYPE& key) {
  return detail::firstMapping<KEYTYPE, signed char, unsigned char, signed short, unsigned short,
                              signed int, unsigned int, float, double>(key);
}

}  // namespace zelTools

// vorn/Parameter.hpp
//
// Parameter: a named text parameter of an operator, an ID name and a literal value.
// Operators own their parameters and look them up by exact ID name; a missing name reads as
// Parameter::NoValueForIDName. Convert<T> turns a value into a small integer type.
#pragma once

#include <string>

#include "vorn/Export.hpp"

namespace vorn {

// An operator's text parameter: an ID name and a value.
class VORN_API Parameter {
 public:
  Parameter();
  // A parameter named `idName` with an empty value.
  explicit Parameter(const std::string& idName);
  // A parameter named `idName` holding `value`.
  Parameter(const std::string& idName, const std::string& value);
  virtual ~Parameter();

  // The name by which operators look the parameter up.
  const std::string& getIDName() const;
  // The value, as text.
  const std::string& getValue() const;
  // Renames the parameter.
  void setIDName(const std::string& idName);
  // Replaces the value; invalidates nothing by itself.
  void setValue(const std::string& value);

  // Exact comparison: case matters, blanks are not trimmed.
  bool sameIDName(const std::string& idName) const;

  // One line without its end: "addr =<address>  ID_NAME = <id>  LITERAL_VALUE = <value>".
  void print() const;

  // "NO_VALUE_FOR_SPECIFIED_IDNAME": what an operator answers for a name it does not have.
  // Lives as long as the library is loaded, so references to it stay valid.
  static std::string NoValueForIDName;

 private:
  std::string m_idName;
  std::string m_value;
};

// Reads the whole text as an int (boost::lexical_cast<int>) and narrows it. Text that is not
// an integer, or an integer out of the target's range, throws boost::bad_lexical_cast.
// Defined only for unsigned char (0 to 255) and char (-128 to 127); other T fail at link time.
template <class T>
T Convert(std::string value);
template <>
// The number in `value` as an unsigned char.
VORN_API unsigned char Convert<unsigned char>(std::string value);
template <>
// The number in `value` as a char.
VORN_API char Convert<char>(std::string value);

}  // namespace vorn

// vorn/Parameter.hpp
//
// Parameter: a named text parameter of an operator, an ID name and a literal value.
// Operators own their parameters and look them up by exact ID name; a missing name reads as
// Parameter::NoValueForIDName. Convert<T> turns a value into a small integer type.
#pragma once

#include <string>

#include "vorn/Export.hpp"

namespace vorn {

class VORN_API Parameter {
 public:
  Parameter();
  explicit Parameter(const std::string& idName);
  Parameter(const std::string& idName, const std::string& value);
  virtual ~Parameter();

  const std::string& getIDName() const;
  const std::string& getValue() const;
  void setIDName(const std::string& idName);
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
VORN_API unsigned char Convert<unsigned char>(std::string value);
template <>
VORN_API char Convert<char>(std::string value);

}  // namespace vorn

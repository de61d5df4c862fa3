#include "vorn/Parameter.hpp"

#include <cstdint>
#include <iostream>

#include <boost/lexical_cast.hpp>

namespace vorn {

std::string Parameter::NoValueForIDName = "NO_VALUE_FOR_SPECIFIED_IDNAME";

Parameter::Parameter() : m_idName("ID_NONAME"), m_value("VALUE_UNDEFINED") {}

Parameter::Parameter(const std::string& idName) : m_idName(idName), m_value("VALUE_UNDEFINED") {}

Parameter::Parameter(const std::string& idName, const std::string& value)
    : m_idName(idName), m_value(value) {}

Parameter::~Parameter() = default;

const std::string& Parameter::getIDName() const { return m_idName; }

const std::string& Parameter::getValue() const { return m_value; }

void Parameter::setIDName(const std::string& idName) { m_idName = idName; }

void Parameter::setValue(const std::string& value) { m_value = value; }

bool Parameter::sameIDName(const std::string& idName) const { return m_idName == idName; }

void Parameter::print() const {
  std::cout << "addr =" << static_cast<const void*>(this) << "  ID_NAME = " << m_idName
            << "  LITERAL_VALUE = " << m_value;
}

template <>
unsigned char Convert<unsigned char>(std::string value) {
  const int number = boost::lexical_cast<int>(value);
  // Taken as unsigned, a negative number is huge: one test refuses both ends.
  if (static_cast<std::uint32_t>(number) > 255u) throw boost::bad_lexical_cast();
  return static_cast<unsigned char>(number);
}

template <>
char Convert<char>(std::string value) {
  const int number = boost::lexical_cast<int>(value);
  if (number < -128 || number > 127) throw boost::bad_lexical_cast();
  return static_cast<char>(number);
}

}  // namespace vorn

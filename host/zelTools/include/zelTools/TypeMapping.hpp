// zelTools/TypeMapping.hpp
//
// isMapping<T, KEYTYPE>(key): does `key` designate the element type T? The primary template has
// no definition, so asking about a pair that nobody mapped fails at link time instead of
// answering false. The host maps its eight element types from their names (std::string keys);
// libraries add their own key types by explicit specialisation.
#pragma once

#include <string>

namespace zelTools {

template <class T, class KEYTYPE>
bool isMapping(const KEYTYPE& key);

// The host's element types by name, in its type-list order.
template <>
bool isMapping<signed char, std::string>(const std::string& key);
template <>
bool isMapping<unsigned char, std::string>(const std::string& key);
template <>
bool isMapping<signed short, std::string>(const std::string& key);
template <>
bool isMapping<unsigned short, std::string>(const std::string& key);
template <>
bool isMapping<signed int, std::string>(const std::string& key);
template <>
bool isMapping<unsigned int, std::string>(const std::string& key);
template <>
bool isMapping<float, std::string>(const std::string& key);
template <>
bool isMapping<double, std::string>(const std::string& key);

}  // namespace zelTools

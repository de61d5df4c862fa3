// vorn/PixelType.hpp
//
// The three pixel types of vorn images, their sizes and names. Every function here is pure:
// values other than UCHAR, SHORT and FLOAT all behave as UNKNOWN (size 0, the unknown-type
// name). Also maps PixelType::Type keys for the host's zelTools::isMapping protocol.
#pragma once

#include <cstdint>
#include <string>

#include <zelTools/TypeMapping.hpp>

#include "vorn/Export.hpp"

namespace vorn {

// The pixel types of images.
struct VORN_API PixelType {
  // 32-bit storage: a value read back from anywhere (even -1 or 4) is a valid Type.
  enum Type : std::int32_t { UNKNOWN = 0, UCHAR = 1, SHORT = 2, FLOAT = 3 };
};

// Bytes per pixel: 1, 2, 4; 0 for anything else.
VORN_API unsigned int getSizeOf(const PixelType::Type& pixelType);

// "unsigned char", "short int", "float", or the unknown-type text for anything else.
VORN_API std::string getTypeIdName(const PixelType::Type& pixelType);

// Exact, case-sensitive parse. "short int", "signed short" and "short" all name SHORT.
VORN_API PixelType::Type getPixelType(const std::string& name);

// The Type of an element type. Only unsigned char, short and float are defined: any other T
// fails at link time.
template <class T>
PixelType::Type returnPixelType();
template <>
// UCHAR.
VORN_API PixelType::Type returnPixelType<unsigned char>();
template <>
// SHORT.
VORN_API PixelType::Type returnPixelType<short>();
template <>
// FLOAT.
VORN_API PixelType::Type returnPixelType<float>();

}  // namespace vorn

namespace zelTools {

// True exactly when the key is the enumerator of T.
template <>
VORN_API bool isMapping<unsigned char, vorn::PixelType::Type>(const vorn::PixelType::Type& key);
template <>
VORN_API bool isMapping<short, vorn::PixelType::Type>(const vorn::PixelType::Type& key);
template <>
VORN_API bool isMapping<float, vorn::PixelType::Type>(const vorn::PixelType::Type& key);

}  // namespace zelTools

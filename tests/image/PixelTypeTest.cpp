#include "vorn/PixelType.hpp"

#include <gtest/gtest.h>

namespace {

using vorn::PixelType;

const std::string kUnknownName = "Unknow Type : ggetTypeIdName(const PixelType::Type &pixelType)";

// Tests sizes and names of the three types, and that names parse back to their type.
TEST(PixelType, NamesAndSizesRoundTrip) {
  EXPECT_EQ(1u, vorn::getSizeOf(PixelType::UCHAR));
  EXPECT_EQ(2u, vorn::getSizeOf(PixelType::SHORT));
  EXPECT_EQ(4u, vorn::getSizeOf(PixelType::FLOAT));
  EXPECT_EQ("unsigned char", vorn::getTypeIdName(PixelType::UCHAR));
  EXPECT_EQ("short int", vorn::getTypeIdName(PixelType::SHORT));
  EXPECT_EQ("float", vorn::getTypeIdName(PixelType::FLOAT));
  for (PixelType::Type t :
       {PixelType::UNKNOWN, PixelType::UCHAR, PixelType::SHORT, PixelType::FLOAT}) {
    EXPECT_EQ(t, vorn::getPixelType(vorn::getTypeIdName(t)));
  }
}

// Tests that any value outside 1..3 behaves as unknown.
TEST(PixelType, OtherValuesAreUnknown) {
  for (int raw : {0, 4, -1}) {
    const auto t = static_cast<PixelType::Type>(raw);
    EXPECT_EQ(kUnknownName, vorn::getTypeIdName(t));
    EXPECT_EQ(0u, vorn::getSizeOf(t));
  }
  EXPECT_EQ(4u, sizeof(PixelType::Type));
}

// Tests that parsing is exact: three spellings of the 16-bit type, nothing trimmed or folded.
TEST(PixelType, ParsingIsExact) {
  for (const char* name : {"signed short", "short", "short int"}) {
    EXPECT_EQ(PixelType::SHORT, vorn::getPixelType(name)) << name;
  }
  for (const char* name : {"Float", "float ", "unsigned short", "int", "double", ""}) {
    EXPECT_EQ(PixelType::UNKNOWN, vorn::getPixelType(name)) << '"' << name << '"';
  }
}

// Tests the compile-time mapping and the host protocol's specialisations for Type keys.
TEST(PixelType, ElementTypeMappings) {
  EXPECT_EQ(PixelType::UCHAR, vorn::returnPixelType<unsigned char>());
  EXPECT_EQ(PixelType::SHORT, vorn::returnPixelType<short>());
  EXPECT_EQ(PixelType::FLOAT, vorn::returnPixelType<float>());

  const PixelType::Type types[] = {PixelType::UNKNOWN, PixelType::UCHAR, PixelType::SHORT,
                                   PixelType::FLOAT};
  for (PixelType::Type t : types) {
    EXPECT_EQ(t == PixelType::UCHAR, (zelTools::isMapping<unsigned char, PixelType::Type>(t)));
    EXPECT_EQ(t == PixelType::SHORT, (zelTools::isMapping<short, PixelType::Type>(t)));
    EXPECT_EQ(t == PixelType::FLOAT, (zelTools::isMapping<float, PixelType::Type>(t)));
  }
}

}  // namespace

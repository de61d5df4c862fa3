#include "vorn/PixelType.hpp"

#include <gtest/gtest.h>

namespace {

using vorn::PixelType;

// Tests names, sizes and parsing: names parse back, three spellings of the 16-bit type, nothing
// trimmed or folded, and every other value unknown.
TEST(PixelType, NamesSizesAndParsing) {
  const PixelType::Type types[] = {PixelType::UNKNOWN, PixelType::UCHAR, PixelType::SHORT,
                                   PixelType::FLOAT, static_cast<PixelType::Type>(-1)};
  const unsigned sizes[] = {0, 1, 2, 4, 0};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(sizes[i], vorn::getSizeOf(types[i]));
    EXPECT_EQ(i < 4 ? types[i] : PixelType::UNKNOWN,
              vorn::getPixelType(vorn::getTypeIdName(types[i])));
    EXPECT_EQ(i == 2, (zelTools::isMapping<short, PixelType::Type>(types[i])));
  }
  EXPECT_EQ("Unknow Type : ggetTypeIdName(const PixelType::Type &pixelType)",
            vorn::getTypeIdName(static_cast<PixelType::Type>(4)));
  EXPECT_EQ(PixelType::SHORT, vorn::getPixelType("signed short"));
  EXPECT_EQ(PixelType::SHORT, vorn::getPixelType("short"));
  for (const char* name : {"Float", "float ", "unsigned short", "double", ""}) {
    EXPECT_EQ(PixelType::UNKNOWN, vorn::getPixelType(name)) << name;
  }
  EXPECT_EQ(PixelType::FLOAT, vorn::returnPixelType<float>());
  EXPECT_TRUE((zelTools::isMapping<unsigned char, PixelType::Type>(PixelType::UCHAR)));
  EXPECT_FALSE((zelTools::isMapping<float, PixelType::Type>(PixelType::SHORT)));
}

}  // namespace

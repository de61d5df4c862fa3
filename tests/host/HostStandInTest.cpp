#include <gtest/gtest.h>

#include <stdexcept>
#include <zelData/Image.hpp>
#include <zelTools/DynamicType.hpp>

namespace {

// Tests the host's eight names, built from the type and from the name, and the two refusals.
TEST(DynamicType, NamesAndRefusals) {
  using zelTools::makeDynamicType;
  EXPECT_EQ("signed short", makeDynamicType<short>().string());
  EXPECT_EQ("unsigned int", makeDynamicType<unsigned int>().string());
  for (const char* name : {"signed char", "unsigned char", "signed short", "unsigned short",
                           "signed int", "unsigned int", "float", "double"}) {
    EXPECT_EQ(name, makeDynamicType(std::string(name)).string());
  }
  EXPECT_TRUE(makeDynamicType<float>() == makeDynamicType(std::string("float")));
  EXPECT_TRUE(makeDynamicType<float>() != zelTools::DynamicType());
  try {
    makeDynamicType(std::string("short int"));
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ("KeyType value incorrect : no corresponding Type in typelist", e.what());
  }
  try {
    makeDynamicType<long>();
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ("DynamicType::setType<TYPE> incorrect TYPE", e.what());
  }
}

// Tests that the host image frees the buffer it was given when given another (the sanitizers
// see a leak or a double free otherwise).
TEST(HostImage, OwnsItsBuffer) {
  data::Image img;
  char* first = new char[4];
  img.setBuffer(first);
  img.setBuffer(first);  // the same buffer again: kept, not freed
  img.setBuffer(new char[8]);
  EXPECT_NE(static_cast<void*>(first), img.getBuffer());
}

}  // namespace

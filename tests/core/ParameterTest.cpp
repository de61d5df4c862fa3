#include "vorn/Parameter.hpp"

#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>

#include "CoutCapture.hpp"

namespace {

// Tests the defaults, exact ID names and the open-ended printed line.
TEST(Parameter, DefaultsNamesAndPrint) {
  EXPECT_EQ("ID_NONAME", vorn::Parameter().getIDName());
  vorn::Parameter p("Radius");
  EXPECT_EQ("VALUE_UNDEFINED", p.getValue());
  EXPECT_FALSE(p.sameIDName("radius"));
  EXPECT_FALSE(p.sameIDName("Radius "));
  p.setValue("3");
  CoutCapture out;
  p.print();
  EXPECT_EQ("addr =" + addressText(&p) + "  ID_NAME = Radius  LITERAL_VALUE = 3", out.str());
}

// Tests the ranges of both conversions and that out-of-range values throw a default-constructed
// cast error, like malformed text does.
TEST(Parameter, ConvertRanges) {
  EXPECT_EQ(255, vorn::Convert<unsigned char>("255"));
  EXPECT_EQ(-128, vorn::Convert<char>("-128"));
  EXPECT_EQ(127, vorn::Convert<char>("127"));
  for (const char* text : {"256", "-1", " 5", "5 ", "", "0x1"}) {
    EXPECT_THROW(vorn::Convert<unsigned char>(text), boost::bad_lexical_cast) << text;
  }
  EXPECT_THROW(vorn::Convert<char>("128"), boost::bad_lexical_cast);
  try {
    vorn::Convert<char>("-129");
    ADD_FAILURE() << "-129 converted";
  } catch (const boost::bad_lexical_cast& e) {
    EXPECT_EQ(typeid(void), e.source_type());
  }
}

}  // namespace

#include "vorn/Parameter.hpp"

#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>

#include "CoutCapture.hpp"

namespace {

using vorn::Convert;
using vorn::Parameter;

// Tests the defaults of the three constructors and the missing-value text.
TEST(Parameter, Defaults) {
  EXPECT_EQ("ID_NONAME", Parameter().getIDName());
  EXPECT_EQ("VALUE_UNDEFINED", Parameter().getValue());
  Parameter named("sigma");
  EXPECT_EQ("sigma", named.getIDName());
  EXPECT_EQ("VALUE_UNDEFINED", named.getValue());
  named.setValue("2.5");
  EXPECT_EQ("2.5", named.getValue());
  EXPECT_EQ("NO_VALUE_FOR_SPECIFIED_IDNAME", Parameter::NoValueForIDName);
}

// Tests that ID names compare exactly.
TEST(Parameter, SameIDNameIsExact) {
  Parameter p("Radius", "3");
  EXPECT_TRUE(p.sameIDName("Radius"));
  EXPECT_FALSE(p.sameIDName("radius"));
  EXPECT_FALSE(p.sameIDName("Radius "));
  p.setIDName("radius");
  EXPECT_TRUE(p.sameIDName("radius"));
}

// Tests the one-line printed form, which has no line end of its own.
TEST(Parameter, PrintsOneOpenLine) {
  Parameter p("threshold", "128");
  CoutCapture out;
  p.print();
  EXPECT_EQ("addr =" + addressText(&p) + "  ID_NAME = threshold  LITERAL_VALUE = 128", out.str());
}

// Tests the accepted range of Convert<unsigned char> and what it refuses.
TEST(Convert, UnsignedCharRange) {
  EXPECT_EQ(0, Convert<unsigned char>("0"));
  EXPECT_EQ(255, Convert<unsigned char>("255"));
  for (const char* text : {"256", "-1", " 5", "5 ", "", "12a", "99999999999"}) {
    EXPECT_THROW(Convert<unsigned char>(text), boost::bad_lexical_cast) << '"' << text << '"';
  }
}

// Tests that Convert<char> takes the signed char range and nothing beyond it.
TEST(Convert, CharRange) {
  EXPECT_EQ(-128, Convert<char>("-128"));
  EXPECT_EQ(127, Convert<char>("127"));
  EXPECT_EQ(0, Convert<char>("0"));
  for (const char* text : {"128", "-129", "x", ""}) {
    EXPECT_THROW(Convert<char>(text), boost::bad_lexical_cast) << '"' << text << '"';
  }
}

// Tests that an out-of-range value throws a default-constructed cast error (types void).
TEST(Convert, RangeErrorIsDefaultConstructed) {
  try {
    Convert<unsigned char>("300");
    FAIL() << "no exception";
  } catch (const boost::bad_lexical_cast& e) {
    EXPECT_EQ(typeid(void), e.source_type());
    EXPECT_EQ(typeid(void), e.target_type());
  }
}

}  // namespace

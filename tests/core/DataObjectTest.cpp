#include "vorn/DataObject.hpp"

#include <gtest/gtest.h>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/ImageObject.hpp"

namespace {

// Tests that freshness follows the generator's flag, only a stale generator is updated, and a
// data object without generator is up to date and prints a null one.
TEST(DataObject, FollowsItsGenerator) {
  LoggingOperator generator("G", nullptr, 0, 0);
  vorn::ImageObject data;
  CoutCapture out;
  data.vorn::DataObject::print();
  EXPECT_EQ("\n  Generator = 0\n", out.str());
  EXPECT_TRUE(data.isUptodate());
  data.setGenerator(&generator);
  EXPECT_FALSE(data.isUptodate());
  data.update();
  EXPECT_EQ(1, generator.computations);
  EXPECT_TRUE(data.isUptodate());
  data.update();
  EXPECT_EQ(1, generator.computations);
}

}  // namespace

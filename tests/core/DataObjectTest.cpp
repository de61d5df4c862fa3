#include "vorn/DataObject.hpp"

#include <gtest/gtest.h>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/ProcessObject.hpp"

namespace {

// An operator that only counts how often it is asked to update.
class CountingUpdates : public vorn::ProcessObject {
 public:
  void update() override { ++updates; }
  void generateData() override {}
  void setInvalidated(bool invalidated) { m_invalidated = invalidated; }
  int updates = 0;
};

// Tests that a data object without generator is up to date, updates nothing and prints a null
// generator.
TEST(DataObject, WithoutGeneratorIsUpToDate) {
  vorn::ImageObject data;
  EXPECT_TRUE(data.isUptodate());
  data.update();
  CoutCapture out;
  data.vorn::DataObject::print();
  EXPECT_EQ("\n  Generator = 0\n", out.str());
}

// Tests that freshness follows the generator's flag and that only a stale generator is updated.
TEST(DataObject, FollowsItsGenerator) {
  CountingUpdates generator;
  vorn::ImageObject data;
  data.setGenerator(&generator);
  EXPECT_EQ(&generator, data.getGenerator());

  generator.setInvalidated(false);
  EXPECT_TRUE(data.isUptodate());
  data.update();
  EXPECT_EQ(0, generator.updates);

  generator.setInvalidated(true);
  EXPECT_FALSE(data.isUptodate());
  data.update();
  EXPECT_EQ(1, generator.updates);
}

}  // namespace

#include "vorn/DefaultImageIO.hpp"

#include <gtest/gtest.h>

namespace {

// Tests that the default hook never reports a dump, whatever is asked of it, and only stores
// its lock flag.
TEST(DefaultImageIO, NeverDumpsAndStoresTheLock) {
  vorn::DefaultImageIO hook(nullptr);
  vorn::IImageIO& io = hook;
  EXPECT_FALSE(io.isDumped());
  io.dump();
  EXPECT_FALSE(io.isDumped());
  io.restore();
  EXPECT_FALSE(io.isLocked());
  io.setLock(true);
  EXPECT_TRUE(io.isLocked());
  io.setLock(false);
  EXPECT_FALSE(io.isLocked());
}

}  // namespace

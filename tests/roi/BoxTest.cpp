#include "vorn/Box.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "CoutCapture.hpp"

namespace {

// Tests empty boxes (no arrays, volume 0, two printed lines), the volume, and that copies and
// assignments are deep, follow the source's dimension and reuse arrays of the same dimension.
TEST(Box, EmptyVolumeAndDeepCopies) {
  vorn::Box empty(0);
  std::ostringstream os;
  empty.printSelf(os);
  EXPECT_EQ("Box : adress = " + addressText(&empty) + "\nDimension: 0\n", os.str());
  EXPECT_TRUE(vorn::Box() == empty);
  EXPECT_EQ(0u, empty.volume());
  EXPECT_EQ(0u, vorn::Box(3).volume());  // fresh sizes are 0

  vorn::Box source(2), assigned(3);
  source.m_size[0] = 3;
  source.m_size[1] = 4;
  EXPECT_EQ(12u, source.volume());
  vorn::Box copy(source);
  assigned = source;
  source.m_size[1] = 9;
  EXPECT_EQ(4u, copy.m_size[1]);
  EXPECT_FALSE(assigned == source);
  long* const arrays = assigned.m_start;
  assigned = source;
  EXPECT_EQ(arrays, assigned.m_start);
  EXPECT_TRUE(assigned == source);
  assigned.m_start[0] = -1;
  EXPECT_FALSE(assigned == source);  // same sizes, another start
  assigned = empty;
  EXPECT_EQ(nullptr, assigned.m_size);
}

}  // namespace

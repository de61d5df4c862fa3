#include "vorn/Box.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "CoutCapture.hpp"

namespace {

// Tests empty boxes, volume, equality and the printed form (all starts before all sizes).
TEST(Box, MeasureCompareAndPrint) {
  EXPECT_TRUE(vorn::Box() == vorn::Box(0));
  EXPECT_EQ(nullptr, vorn::Box(0).m_start);
  EXPECT_EQ(0u, vorn::Box(3).volume());  // fresh sizes are 0
  vorn::Box box(2), other(2);
  box.m_start[0] = 1;
  box.m_start[1] = -2;
  box.m_size[0] = 3;
  box.m_size[1] = 4;
  EXPECT_EQ(12u, box.volume());
  EXPECT_FALSE(box == other);
  std::ostringstream os;
  box.printSelf(os);
  EXPECT_EQ("Box : adress = " + addressText(&box) +
                "\nDimension: 2\nStart: 1\nStart: -2\nSize: 3\nSize: 4\n",
            os.str());
}

// Tests that copies and assignments are deep, follow the source's dimension and reuse arrays of
// the same dimension.
TEST(Box, CopiesAreDeep) {
  vorn::Box source(2), assigned(3);
  source.m_size[1] = 4;
  vorn::Box copy(source);
  assigned = source;
  EXPECT_TRUE(assigned == source);
  source.m_size[1] = 9;
  EXPECT_EQ(4u, copy.m_size[1]);
  EXPECT_EQ(4u, assigned.m_size[1]);
  long* const arrays = assigned.m_start;
  assigned = source;
  assigned = assigned;
  EXPECT_EQ(arrays, assigned.m_start);
  EXPECT_EQ(9u, assigned.m_size[1]);
  assigned = vorn::Box();
  EXPECT_EQ(nullptr, assigned.m_size);
}

}  // namespace

#include "vorn/Box.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "CoutCapture.hpp"

namespace {

vorn::Box makeBox(std::initializer_list<long> starts, std::initializer_list<unsigned long> sizes) {
  vorn::Box box(static_cast<unsigned int>(starts.size()));
  unsigned int k = 0;
  for (long s : starts) box.m_start[k++] = s;
  k = 0;
  for (unsigned long s : sizes) box.m_size[k++] = s;
  return box;
}

// Tests that empty boxes have no arrays, zero volume, compare equal and print two lines.
TEST(Box, EmptyBoxes) {
  vorn::Box none;
  vorn::Box zero(0);
  EXPECT_EQ(nullptr, zero.m_start);
  EXPECT_EQ(nullptr, zero.m_size);
  EXPECT_EQ(0u, none.volume());
  EXPECT_TRUE(none == zero);

  std::ostringstream os;
  zero.printSelf(os);
  EXPECT_EQ("Box : adress = " + addressText(&zero) + "\nDimension: 0\n", os.str());
}

// Tests that a box with axes starts zeroed and measures the product of its sizes only.
TEST(Box, VolumeIgnoresStarts) {
  vorn::Box fresh(3);
  EXPECT_EQ(0, fresh.m_start[2]);
  EXPECT_EQ(0u, fresh.m_size[2]);
  EXPECT_EQ(0u, fresh.volume());  // zero sizes

  EXPECT_EQ(24u, makeBox({-5, 7, 100}, {2, 3, 4}).volume());
  EXPECT_EQ(0u, makeBox({0, 0, 0}, {2, 0, 4}).volume());
}

// Tests the printed form: all starts (signed) before all sizes (unsigned), on std::cout.
TEST(Box, PrintsStartsThenSizes) {
  vorn::Box box = makeBox({1, -2}, {3, 4});
  CoutCapture out;
  box.print();
  EXPECT_EQ("Box : adress = " + addressText(&box) +
                "\nDimension: 2\nStart: 1\nStart: -2\nSize: 3\nSize: 4\n",
            out.str());
}

// Tests that copies and assignments are deep and follow the source's dimension.
TEST(Box, CopiesAreDeep) {
  vorn::Box source = makeBox({1, 2}, {3, 4});
  vorn::Box copy(source);
  vorn::Box assigned(3);
  assigned = source;

  EXPECT_EQ(2u, assigned.m_dimension);
  EXPECT_TRUE(assigned == source);
  EXPECT_NE(source.m_start, assigned.m_start);
  source.m_start[0] = 99;
  source.m_size[1] = 99;
  EXPECT_EQ(1, copy.m_start[0]);
  EXPECT_EQ(4u, assigned.m_size[1]);

  long* const arrays = assigned.m_start;
  assigned = copy;  // same dimension: the arrays are reused
  EXPECT_EQ(arrays, assigned.m_start);
  assigned = assigned;
  EXPECT_TRUE(assigned == copy);

  vorn::Box emptied(2);
  emptied = vorn::Box();
  EXPECT_EQ(nullptr, emptied.m_start);  // back to no axes, no arrays
}

// Tests that equality needs the same dimension and every start and size.
TEST(Box, EqualityComparesEveryAxis) {
  const vorn::Box a = makeBox({0, 0, 1}, {5, 5, 5});
  EXPECT_FALSE(a == makeBox({0, 0, 2}, {5, 5, 5}));
  EXPECT_FALSE(a == makeBox({0, 0, 1}, {5, 5, 6}));
  EXPECT_FALSE(a == makeBox({0, 0}, {5, 5}));
  EXPECT_TRUE(a == makeBox({0, 0, 1}, {5, 5, 5}));
}

}  // namespace

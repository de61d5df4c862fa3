// Region-of-interest propagation on operators.
#include <gtest/gtest.h>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/Port.hpp"

namespace {

using Roi = boost::shared_ptr<vorn::RoiObject const>;

vorn::DataObject& dataOf(vorn::ProcessObject& op, unsigned output = 0) {
  return *op.getOutputPort(output)->getData();
}

class RegionsTest : public ::testing::Test {
 protected:
  CoutCapture out;
  Roi r{new vorn::BoxRoi}, p{new vorn::BoxRoi};
  LoggingOperator a{"A", nullptr, 0, 1}, b{"B", nullptr, 1, 2}, c{"C", nullptr};
};

// Tests settling along A -> B -> C: a request wins, other outputs take input 0's region (the
// same object), and an operator with the ignore flag keeps what it had.
TEST_F(RegionsTest, RegionsTravelDownAChain) {
  connect(a, b);
  connect(b, c);
  c.setIgnorePreviousROI(true);
  a.setRequestedRegionOfInterest(0, p);
  b.setRequestedRegionOfInterest(1, r);
  EXPECT_EQ(p, dataOf(a).m_regionOfInterest);  // in effect before any update
  c.update();
  EXPECT_EQ(p, dataOf(b, 0).m_regionOfInterest);
  EXPECT_EQ(r, dataOf(b, 1).m_regionOfInterest);
  EXPECT_FALSE(dataOf(b, 0).m_requestedRegionOfInterest);
  EXPECT_FALSE(dataOf(c).m_regionOfInterest);
}

// Tests that nothing passes from another composite, from data without generator or to a
// source's outputs without request.
TEST_F(RegionsTest, WhereNothingPasses) {
  connect(a, c);
  a.setRequestedRegionOfInterest(0, r);
  c.setParent(&b);
  c.update();
  EXPECT_FALSE(dataOf(c).m_regionOfInterest);
  c.setParent(nullptr);
  dataOf(a).setGenerator(nullptr);
  c.generateOutputRegionOfInterest();
  EXPECT_FALSE(dataOf(c).m_regionOfInterest);
  b.generateOutputRegionOfInterest();  // input unconnected
  EXPECT_FALSE(dataOf(b, 1).m_regionOfInterest);
}

// Tests that every request invalidates (the same one too), an empty one clears both fields and
// the output then follows input 0 again, and a missing output is refused.
TEST_F(RegionsTest, RequestsInvalidate) {
  connect(a, c);
  a.setRequestedRegionOfInterest(0, p);
  c.setRequestedRegionOfInterest(0, r);
  c.update();
  c.setRequestedRegionOfInterest(0, r);
  EXPECT_TRUE(c.isInvalidated());
  c.setRequestedRegionOfInterest(0, Roi());
  EXPECT_FALSE(dataOf(c).m_regionOfInterest);
  c.update();
  EXPECT_EQ(p, dataOf(c).m_regionOfInterest);
  out.take();
  c.setRequestedRegionOfInterest(1, r);
  EXPECT_EQ("ProcessObject::setRequestedRegionOfInterest no output data at index 1\n", out.take());
  EXPECT_FALSE(c.isInvalidated());
}

}  // namespace

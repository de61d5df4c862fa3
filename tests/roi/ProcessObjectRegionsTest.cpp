// Region-of-interest propagation on operators.
#include <gtest/gtest.h>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/Port.hpp"

namespace {

using Roi = boost::shared_ptr<vorn::RoiObject const>;

const vorn::DataObject& dataOf(const vorn::ProcessObject& op, unsigned output = 0) {
  return *op.getOutputPort(output)->getData();
}

class RegionsTest : public ::testing::Test {
 protected:
  CoutCapture out;
  Roi r{new vorn::BoxRoi}, p{new vorn::BoxRoi};
};

// Tests that a requested region travels down a chain of top-level operators as the same object,
// and that it stops at an operator with the ignore flag.
TEST_F(RegionsTest, RegionTravelsDownAChain) {
  LoggingOperator a("A", nullptr, 0, 1), b("B", nullptr), c("C", nullptr);
  connect(a, b);
  connect(b, c);
  c.setIgnorePreviousROI(true);
  a.setRequestedRegionOfInterest(0, r);
  EXPECT_EQ(r, dataOf(a).m_regionOfInterest);  // in effect before any update
  c.update();
  EXPECT_EQ(r, dataOf(b).m_regionOfInterest);
  EXPECT_FALSE(dataOf(b).m_requestedRegionOfInterest);
  EXPECT_FALSE(dataOf(c).m_regionOfInterest);
  EXPECT_TRUE(c.isIgnorePreviousROI());
}

// Tests settling on two outputs: a request wins, the other output takes input 0's region.
TEST_F(RegionsTest, RequestWinsOverInputRegion) {
  LoggingOperator a("A", nullptr, 0, 1), b("B", nullptr, 1, 2);
  connect(a, b);
  a.setRequestedRegionOfInterest(0, p);
  b.setRequestedRegionOfInterest(0, r);
  b.update();
  EXPECT_EQ(r, dataOf(b, 0).m_regionOfInterest);
  EXPECT_EQ(p, dataOf(b, 1).m_regionOfInterest);
}

// Tests a source: outputs without a request end with no region.
TEST_F(RegionsTest, SourceHasOnlyRequestedRegions) {
  LoggingOperator source("S", nullptr, 0, 2);
  source.setRequestedRegionOfInterest(1, r);
  source.update();
  EXPECT_FALSE(dataOf(source, 0).m_regionOfInterest);
  EXPECT_EQ(r, dataOf(source, 1).m_regionOfInterest);
}

// Tests that a region does not pass between operators of different composites.
TEST_F(RegionsTest, RegionStopsAtACompositeBorder) {
  LoggingOperator outer("outer", nullptr, 0, 1), inner("inner", nullptr),
      composite("composite", nullptr, 0, 0);
  inner.setParent(&composite);
  connect(outer, inner);
  outer.setRequestedRegionOfInterest(0, r);
  inner.update();
  EXPECT_FALSE(dataOf(inner).m_regionOfInterest);
}

// Tests that every request invalidates, an empty one clears both fields, and the output then
// takes input 0's region again.
TEST_F(RegionsTest, EmptyRequestClearsAndInvalidates) {
  LoggingOperator a("A", nullptr, 0, 1), b("B", nullptr);
  connect(a, b);
  a.setRequestedRegionOfInterest(0, p);
  b.setRequestedRegionOfInterest(0, r);
  b.update();
  b.setRequestedRegionOfInterest(0, r);
  EXPECT_TRUE(b.isInvalidated());  // same region, still invalidated
  b.update();
  b.setRequestedRegionOfInterest(0, Roi());
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_FALSE(dataOf(b).m_requestedRegionOfInterest);
  EXPECT_FALSE(dataOf(b).m_regionOfInterest);
  b.update();
  EXPECT_EQ(p, dataOf(b).m_regionOfInterest);
}

// Tests the refusals: no output at the index; input data without generator passes nothing.
TEST_F(RegionsTest, RefusalsAndMissingGenerator) {
  LoggingOperator a("A", nullptr, 0, 1), b("B", nullptr);
  b.setToValidated();
  out.take();
  b.setRequestedRegionOfInterest(1, r);
  EXPECT_EQ("ProcessObject::setRequestedRegionOfInterest no output data at index 1\n", out.take());
  EXPECT_FALSE(b.isInvalidated());

  b.generateOutputRegionOfInterest();  // input 0 unconnected: no region, no crash
  EXPECT_FALSE(dataOf(b).m_regionOfInterest);
  connect(a, b);
  a.setRequestedRegionOfInterest(0, r);
  a.getOutputPort(0)->getData()->setGenerator(nullptr);
  b.generateOutputRegionOfInterest();
  EXPECT_FALSE(dataOf(b).m_regionOfInterest);
}

}  // namespace

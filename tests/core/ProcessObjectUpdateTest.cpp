// The update engine: ProcessObject::update, updateWithNoRepercussion and updateOutputData.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <stdexcept>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"

namespace {

template <class F>
std::string failureOf(F call) {
  return thrownBy<std::ios_base::failure>(call);
}

const std::string kCannot = " : processings cannot be performed\n";

class UpdateTest : public ::testing::Test {
 protected:
  ~UpdateTest() override { vorn::Repercussion::setEnable(true); }
  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
};

// Tests one computation's events and timing line (its output inside), then an update that only
// validates.
TEST_F(UpdateTest, ComputeOnceThenOnlyValidate) {
  LoggingOperator op("Blur", &log, 0, 1);
  op.attachObserver(&observer);
  op.action = [] { std::cout << "[inside]"; };
  op.update();
  op.update();
  EXPECT_EQ((EventLog{"start:Blur", "compute:Blur", "generated:Blur", "validated:Blur",
                      "validated:Blur"}),
            log);
  EXPECT_TRUE(std::regex_match(
      out.str(), std::regex("Processing with operator : Blur - adr : " + addressText(&op) +
                            "\\[inside\\]\\. Computation done in "
                            "[-0-9.e]+ s \n")))
      << out.str();
}

// Tests a diamond computed once each, upstream first; an up-to-date operator looks no further
// than its inputs' generators.
TEST_F(UpdateTest, DiamondAndUpToDateCost) {
  struct Counting : LoggingOperator {
    using LoggingOperator::LoggingOperator;
    bool isInvalidated() override { return ++queries, LoggingOperator::isInvalidated(); }
    int queries = 0;
  };
  Counting a("A", &log, 0, 1), b("B", &log), c("C", &log);
  LoggingOperator d("D", &log, 2, 1);
  connect(a, b);
  connect(a, c);
  connect(b, d, 0);
  connect(c, d, 1);
  d.update();
  EXPECT_EQ((EventLog{"compute:A", "compute:B", "compute:C", "compute:D"}), log);
  a.queries = b.queries = 0;
  d.update();
  EXPECT_EQ(0, a.queries);
  EXPECT_EQ(1, b.queries);
}

// Tests failures: a missing input found after the earlier inputs updated; a computation that
// throws (wrapped, line left open, no "generated"); a foreign exception passed unchanged.
TEST_F(UpdateTest, Failures) {
  LoggingOperator a("A", &log, 0, 1), sum("Sum", &log, 2, 1), bad("Bad", &log);
  connect(a, sum, 0);
  EXPECT_EQ("vorn::ProcessObject::update()\nOne input of the operator Sum has no data" + kCannot,
            failureOf([&] { sum.update(); }));
  EXPECT_EQ(EventLog{"compute:A"}, log);
  EXPECT_TRUE(sum.isInvalidated());

  connect(a, bad);
  bad.attachObserver(&observer);
  bad.action = [] { throw std::runtime_error("file is corrupt"); };
  log.clear();
  EXPECT_EQ("Operator Bad has caught an exception\nfile is corrupt",
            failureOf([&] { bad.update(); }));
  EXPECT_EQ((EventLog{"start:Bad", "compute:Bad"}), log);
  EXPECT_TRUE(bad.isInvalidated());
  const std::string printed = out.str();
  EXPECT_EQ("Processing with operator : Bad - adr : " + addressText(&bad),
            printed.substr(printed.rfind("Processing")));
  bad.action = [] { throw 42; };
  EXPECT_THROW(bad.update(), int);
}

// Tests updates without repercussion: recomputed each time from what the inputs hold, no flag
// changes, inputs without data or computed data refused.
TEST_F(UpdateTest, WithoutRepercussion) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log), unconnected("U", &log);
  connect(a, b);
  vorn::Repercussion::setEnable(false);
  const std::string where = "vorn::ProcessObject::updateWithNoRepercussion()\n";
  EXPECT_EQ(where + "One input of the operator B has no computed data" + kCannot,
            failureOf([&] { b.update(); }));
  EXPECT_EQ(where + "One input of the operator U has no allocated data" + kCannot,
            failureOf([&] { unconnected.update(); }));
  allocateOutput(a);
  b.update();
  b.update();
  EXPECT_EQ(2, b.computations);
  EXPECT_TRUE(a.isInvalidated());
  EXPECT_TRUE(b.isInvalidated());
}

// Tests repercussion switched off mid-update: the later stale input is left alone and the
// validated operator computed anyway.
TEST_F(UpdateTest, RepercussionSwitchedOffUpstream) {
  LoggingOperator first("First", &log, 0, 1), second("Second", &log, 0, 1), op("Op", &log, 2, 1);
  connect(first, op, 0);
  connect(second, op, 1);
  op.setToValidated();
  first.action = [] { vorn::Repercussion::setEnable(false); };
  op.update();
  EXPECT_EQ((EventLog{"compute:First", "compute:Op"}), log);
}

// Tests a cycle reported, then updated once broken; an observer updating from inside an update
// is no cycle.
TEST_F(UpdateTest, CycleIsReported) {
  LoggingOperator a("A", &log), b("B", &log), source("S", &log, 0, 1);
  connect(a, b);
  connect(b, a);
  EXPECT_EQ("vorn::ProcessObject::update()\nThe operator A depends on its own output" + kCannot,
            failureOf([&] { a.update(); }));
  connect(source, a);
  HookObserver reentrant([&](const std::string& event, vorn::ProcessObject*) {
    if (event == "validated") b.update();
  });
  source.attachObserver(&reentrant);
  EXPECT_NO_THROW(b.update());
  EXPECT_EQ(1, b.computations);
}

}  // namespace

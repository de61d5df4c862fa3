// The update engine: ProcessObject::update, updateWithNoRepercussion and updateOutputData.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <stdexcept>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"

namespace {

using vorn::Repercussion;

class UpdateTest : public ::testing::Test {
 protected:
  ~UpdateTest() override { Repercussion::setEnable(true); }

  // The message an update failure was built with (the standard library may append to what()).
  template <class F>
  static std::string failureOf(F call) {
    try {
      call();
    } catch (const std::ios_base::failure& e) {
      return e.what();
    }
    return "no failure";
  }
  static bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
  }

  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
};

// Tests a source: computed once with its events in order, then only validated.
TEST_F(UpdateTest, SourceComputesOnceThenOnlyValidates) {
  LoggingOperator source("S", &log, 0, 1);
  source.attachObserver(&observer);
  source.update();
  EXPECT_EQ((EventLog{"start:S", "compute:S", "generated:S", "validated:S"}), log);
  log.clear();
  source.update();
  EXPECT_EQ(EventLog{"validated:S"}, log);
}

// Tests the timing line: name, address, the computation's own output inside, seconds, " s ".
TEST_F(UpdateTest, TimingLineWrapsTheComputationsOutput) {
  LoggingOperator op("Blur", &log, 0, 1);
  op.action = [] { std::cout << "[inside]"; };
  out.take();
  op.update();
  const std::regex line("Processing with operator : Blur - adr : " + addressText(&op) +
                        "\\[inside\\]\\. Computation done in [-0-9.e]+ s \n");
  EXPECT_TRUE(std::regex_match(out.str(), line)) << out.str();
}

// Tests that a diamond computes each operator once, upstream first, and a second update
// computes nothing.
TEST_F(UpdateTest, DiamondComputesEachOperatorOnce) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log), c("C", &log), d("D", &log, 2, 1);
  connect(a, b);
  connect(a, c);
  connect(b, d, 0);
  connect(c, d, 1);
  d.update();
  EXPECT_EQ((EventLog{"compute:A", "compute:B", "compute:C", "compute:D"}), log);
  log.clear();
  d.attachObserver(&observer);
  d.update();
  EXPECT_EQ(EventLog{"validated:D"}, log);
}

// Tests a missing input: inputs before it are brought up to date, the operator stays
// invalidated, and the message names it.
TEST_F(UpdateTest, MissingInputThrowsAfterEarlierInputs) {
  LoggingOperator a("A", &log, 0, 1), op("Sum", &log, 2, 1);
  connect(a, op, 0);
  EXPECT_TRUE(startsWith(failureOf([&] { op.update(); }),
                         "vorn::ProcessObject::update()\nOne input of the operator Sum has no "
                         "data : processings cannot be performed\n"));
  EXPECT_EQ(EventLog{"compute:A"}, log);
  EXPECT_FALSE(a.isInvalidated());
  EXPECT_TRUE(op.isInvalidated());
}

// Tests a failing computation: the message, the open line, and which events fired.
TEST_F(UpdateTest, ComputationFailureIsWrapped) {
  LoggingOperator source("Reader", &log, 0, 1), op("Bad", &log);
  connect(source, op);
  op.attachObserver(&observer);
  op.action = [] { throw std::runtime_error("file is corrupt"); };
  out.take();
  const std::string message = failureOf([&] { op.update(); });
  EXPECT_TRUE(startsWith(message, "Operator Bad has caught an exception\nfile is corrupt"))
      << message;
  EXPECT_FALSE(source.isInvalidated());  // updated before the failure, stays so
  EXPECT_TRUE(op.isInvalidated());
  EXPECT_EQ((EventLog{"compute:Reader", "start:Bad", "compute:Bad"}), log);
  const std::string printed = out.str();
  EXPECT_EQ("Processing with operator : Bad - adr : " + addressText(&op),
            printed.substr(printed.rfind("Processing")));  // no end of line
}

// Tests that what is not a std::exception reaches the caller unchanged.
TEST_F(UpdateTest, ForeignExceptionsPassThrough) {
  LoggingOperator op("op", &log, 0, 1);
  op.action = [] { throw 42; };
  EXPECT_THROW(op.update(), int);
}

// Tests the mode without repercussion: recomputed every time, flags untouched, no validation,
// and the two input failures.
TEST_F(UpdateTest, WithoutRepercussionRecomputesOnlyTheOperatorAsked) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log), unconnected("U", &log);
  connect(a, b);
  b.attachObserver(&observer);
  Repercussion::setEnable(false);
  EXPECT_TRUE(startsWith(failureOf([&] { b.update(); }),
                         "vorn::ProcessObject::updateWithNoRepercussion()\nOne input of the "
                         "operator B has no computed data : processings cannot be performed\n"));
  EXPECT_TRUE(startsWith(failureOf([&] { unconnected.update(); }),
                         "vorn::ProcessObject::updateWithNoRepercussion()\nOne input of the "
                         "operator U has no allocated data : processings cannot be performed\n"));
  allocateOutput(a);
  b.update();
  b.update();
  EXPECT_EQ(
      (EventLog{"start:B", "compute:B", "generated:B", "start:B", "compute:B", "generated:B"}),
      log);
  EXPECT_TRUE(a.isInvalidated());  // never pulled
  EXPECT_TRUE(b.isInvalidated());  // never validated
}

// Tests a computation that switches repercussion off mid-update: later stale inputs are left,
// and the operator computes although it was validated.
TEST_F(UpdateTest, RepercussionSwitchedOffUpstream) {
  LoggingOperator first("First", &log, 0, 1), second("Second", &log, 0, 1), op("Op", &log, 2, 1);
  connect(first, op, 0);
  connect(second, op, 1);
  op.setToValidated();
  first.action = [] { Repercussion::setEnable(false); };
  op.update();
  EXPECT_EQ((EventLog{"compute:First", "compute:Op"}), log);
  EXPECT_TRUE(second.isInvalidated());
}

// Tests that a cycle of invalidated operators is reported instead of recursing, and that the
// operators can update once the cycle is broken.
TEST_F(UpdateTest, CycleIsReported) {
  LoggingOperator a("A", &log), b("B", &log);
  connect(a, b);
  connect(b, a);
  const std::string message = failureOf([&] { a.update(); });
  EXPECT_TRUE(startsWith(message,
                         "vorn::ProcessObject::update()\nThe operator A depends on "
                         "its own output : processings cannot be performed\n"))
      << message;
  a.getInputPort(0)->disconnect();
  allocateOutput(b);
  LoggingOperator source("S", &log, 0, 1);
  connect(source, a);
  EXPECT_NO_THROW(b.update());
}

// An operator whose isInvalidated() calls are counted.
class CountingQueries : public LoggingOperator {
 public:
  using LoggingOperator::LoggingOperator;
  bool isInvalidated() override {
    ++queries;
    return LoggingOperator::isInvalidated();
  }
  int queries = 0;
};

// Tests that updating an up-to-date operator looks no further than its own inputs.
TEST_F(UpdateTest, UpToDateUpdateStaysLocal) {
  CountingQueries far("far", nullptr, 0, 1), near("near", nullptr);
  LoggingOperator tail("tail", nullptr);
  connect(far, near);
  connect(near, tail);
  tail.update();
  far.queries = near.queries = 0;
  tail.update();
  EXPECT_EQ(1, near.queries);  // its input's generator, asked once
  EXPECT_EQ(0, far.queries);
}

// Tests that a chain of 10,000 stale operators updates, and invalidates, without exhausting
// the stack.
TEST_F(UpdateTest, LongChain) {
  std::vector<std::unique_ptr<LoggingOperator>> chain;
  chain.push_back(std::make_unique<LoggingOperator>("0", nullptr, 0, 1));
  for (int i = 1; i < 10000; ++i) {
    chain.push_back(std::make_unique<LoggingOperator>(std::to_string(i), nullptr));
    connect(*chain[i - 1], *chain[i]);
  }
  chain.back()->update();
  EXPECT_EQ(1, chain.front()->computations);
  EXPECT_EQ(1, chain.back()->computations);
  chain.front()->setToInvalidated();
  EXPECT_TRUE(chain.back()->isInvalidated());
  chain.back()->update();
  EXPECT_EQ(2, chain.back()->computations);
}

}  // namespace

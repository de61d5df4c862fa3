#include "vorn/ProcessObject.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/Repercussion.hpp"

namespace {

using vorn::Parameter;
using vorn::ProcessObject;

class ProcessObjectTest : public ::testing::Test {
 protected:
  // Validates and observes the operators, and starts the log afresh.
  void watch(std::initializer_list<ProcessObject*> ops) {
    for (ProcessObject* op : ops) {
      op->setToValidated();
      op->attachObserver(&observer);
    }
    log.clear();
  }
  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
};

// Tests the printed form: frame, flag, parent, and the labels (byte 0xB0) of ports and parameters.
TEST_F(ProcessObjectTest, Print) {
  LoggingOperator op("op", &log, 1, 1);
  op.addParameter(new Parameter("k", "v"));
  out.take();
  op.print();
  const std::string rule = "-------------------------------\n";
  const std::string head = rule + "Operator : addr " + addressText(&op) +
                           "   op\n Invalidated = 1\n Parent     = 0\n" + rule +
                           "--------------------- Input Ports ---------------\nInput Port n\xB0";
  EXPECT_EQ(0u, out.str().find(head + "0 Port : this= " + addressText(op.getInputPort(0))));
  EXPECT_NE(std::string::npos, out.str().find("\nOutput Port n\xB0"
                                              "0 PortData : "));
  EXPECT_NE(std::string::npos, out.str().find("---------------------  Parameters ---------------\n"
                                              "Paramter n\xB0"
                                              "0 addr =" +
                                              addressText(op.getParameters()[0]) +
                                              "  ID_NAME = k  LITERAL_VALUE = v\n" + rule));
}

// Tests the refusals of setInputPort and addOutput; setInputPort invalidates whatever happens.
TEST_F(ProcessObjectTest, PortsAndRefusals) {
  LoggingOperator a("A", &log, 0, 1), op("op", &log, 2, 1);
  EXPECT_EQ(nullptr, op.getInputPort(2));
  EXPECT_EQ(&op, op.getOutputPort(0)->getData()->getGenerator());
  watch({&op});
  out.take();
  op.setInputPort(2, a.getOutputPort(0));
  op.addOutput("imageObject");
  EXPECT_EQ(
      "ProcessObject::setInputPort no input port at index 2\n"
      "DataObjectFactory::isValidDataObectType Unkown DataObjectType\n",
      out.take());
  EXPECT_EQ(nullptr, op.getOutputPort(1));
  EXPECT_FALSE(op.isInvalidated());
  vorn::PortProxy foreign("Other", &a);
  op.setInputPort(0, &foreign);  // refused by the port, yet invalidates
  EXPECT_TRUE(op.isInvalidated());
}

// Tests invalidation: down a chain in order, stopped by an invalidated operator, each operator
// of a diamond once (D right after the first branch), nothing with repercussion off.
TEST_F(ProcessObjectTest, Invalidation) {
  LoggingOperator a("A", &log), b("B", &log), c("C", &log), d("D", &log, 2, 1);
  connect(a, b);
  connect(b, d, 0);
  watch({&a, &b, &d});
  a.setToInvalidated();
  EXPECT_EQ((EventLog{"invalidated:A", "invalidated:B", "invalidated:D"}), log);
  watch({&a, &d});
  a.setToInvalidated();
  EXPECT_EQ(EventLog{"invalidated:A"}, log);

  LoggingOperator t("T", &log, 2, 0);
  connect(a, c);
  connect(c, d, 1);
  connect(a, t, 0);
  connect(a, t, 1);
  watch({&a, &b, &c, &d, &t});
  a.setToInvalidated();
  ASSERT_EQ(5u, log.size());  // each once: T's second input finds T already invalidated
  const auto branch = std::find_if(log.begin(), log.end(), [](const std::string& e) {
    return e == "invalidated:B" || e == "invalidated:C";
  });
  EXPECT_EQ("invalidated:D", *(branch + 1));
  vorn::Repercussion::setEnable(false);
  watch({&a});
  a.setToInvalidated();
  EXPECT_FALSE(vorn::Repercussion::setEnable(true));
  EXPECT_TRUE(log.empty());
}

// Tests invalidateReadersOf: the readers of that output only, not the operator itself.
TEST_F(ProcessObjectTest, InvalidatingTheReadersOfOneOutput) {
  struct TwoOutputs : LoggingOperator {
    using LoggingOperator::invalidateReadersOf;
    using LoggingOperator::LoggingOperator;
  };
  TwoOutputs op("op", &log, 0, 2);
  LoggingOperator b("B", &log), c("C", &log), d("D", &log), other("E", &log);
  connect(op, b);
  connect(op, c);
  connect(b, d);
  connect(op, other, 0, 1);
  watch({&op, &b, &d, &other});
  op.invalidateReadersOf(op.getOutputPort(0));
  EXPECT_EQ((EventLog{"invalidated:B", "invalidated:D"}), log);
  EXPECT_FALSE(op.isInvalidated());
  EXPECT_FALSE(other.isInvalidated());
}

// Tests one entry per observer, and an observer detaching itself and the next one while notified.
TEST_F(ProcessObjectTest, DetachingDuringANotification) {
  struct Detaching : RecordingObserver {
    using RecordingObserver::RecordingObserver;
    void onInvalidated(ProcessObject* op) override {
      RecordingObserver::onInvalidated(op);
      op->detachObserver(this);
      op->detachObserver(this + 1);  // the next one in the array below
    }
  };
  LoggingOperator op("op", &log);
  Detaching pair[2] = {Detaching(&log), Detaching(&log)};
  op.attachObserver(&pair[0]);
  op.attachObserver(&pair[0]);
  op.attachObserver(&pair[1]);
  op.setToInvalidated();
  op.setToInvalidated();
  EXPECT_EQ(EventLog{"invalidated:op"}, log);
}

// Tests disconnectAllOutputPorts (highest input port first), disconnectAllInputPorts and the
// destructor (its line, readers unconnected and invalidated, kept data without generator).
TEST_F(ProcessObjectTest, DisconnectionAndDestruction) {
  auto a = std::make_unique<LoggingOperator>("A", &log);
  LoggingOperator b("B", &log), c("C", &log);
  connect(*a, b);
  connect(*a, c);
  watch({&b, &c});
  a->disconnectAllOutputPorts();
  EXPECT_EQ(b.getInputPort(0) > c.getInputPort(0) ? "invalidated:B" : "invalidated:C", log[0]);
  EXPECT_EQ(0u, a->getOutputPort(0)->getNumberOfUse());
  connect(*a, b);
  b.setToValidated();
  b.disconnectAllInputPorts();
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_TRUE(b.isInvalidated());

  connect(*a, b);
  b.setToValidated();
  const boost::shared_ptr<vorn::DataObject> kept = a->getOutputPort(0)->getData();
  const std::string line = "In process Object destructor A : " + addressText(a.get()) + "\n";
  out.take();
  a.reset();
  EXPECT_EQ(line, out.take());
  EXPECT_EQ(nullptr, kept->getGenerator());
  EXPECT_TRUE(kept->isUptodate());  // without generator
  kept->update();                   // and nothing to pull
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
}

// Tests parameters: a missing name, the first of duplicates, a null entry; setting invalidates
// even for the same value, not for an unknown name.
TEST_F(ProcessObjectTest, Parameters) {
  LoggingOperator op("op", &log);
  EXPECT_EQ(&Parameter::NoValueForIDName, &op.getParameterValue("level"));
  op.addParameter(nullptr);
  op.addParameter(new Parameter("level", "1"));
  op.addParameter(new Parameter("level", "2"));
  watch({&op});
  EXPECT_FALSE(op.setParameterValue("Level", "3"));
  EXPECT_FALSE(op.isInvalidated());
  EXPECT_TRUE(op.setParameterValue("level", "2"));
  EXPECT_TRUE(op.isInvalidated());
  EXPECT_EQ("2", op.getParameterValue("level"));
  EXPECT_EQ("2", op.getParameters()[2]->getValue());
}

}  // namespace

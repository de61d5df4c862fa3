#include "vorn/ProcessObject.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace {

using vorn::Parameter;
using vorn::ProcessObject;
using vorn::Repercussion;

class ProcessObjectTest : public ::testing::Test {
 protected:
  // Validates every operator and starts the log afresh, so a test sees only what it causes.
  void validate(std::initializer_list<ProcessObject*> ops) {
    for (ProcessObject* op : ops) op->setToValidated();
    log.clear();
  }
  void observe(std::initializer_list<ProcessObject*> ops) {
    for (ProcessObject* op : ops) op->attachObserver(&observer);
  }

  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
};

// Tests the printed form of a new operator: flag 1, null parent, empty sections.
TEST_F(ProcessObjectTest, NewOperatorPrints) {
  LoggingOperator op("blur", &log, 0, 0);
  out.take();
  op.print();
  const std::string rule = "-------------------------------\n";
  EXPECT_EQ(rule + "Operator : addr " + addressText(&op) +
                "   blur\n Invalidated = 1\n Parent     = 0\n" + rule +
                "--------------------- Input Ports ---------------\n"
                "--------------------- Output Ports ---------------\n"
                "---------------------  Parameters ---------------\n" +
                rule,
            out.str());
}

// Tests the numbered labels (with the single byte 0xB0) around each port and parameter.
TEST_F(ProcessObjectTest, PrintNumbersPortsAndParameters) {
  LoggingOperator op("op", &log, 1, 1);
  op.addParameter(new Parameter("k", "v"));
  out.take();
  op.print();
  const std::string text = out.str();
  const std::string input =
      "Input Port n\xB0"
      "0 Port : this= ";
  const std::string output =
      "Output Port n\xB0"
      "0 PortData : ";
  const std::string parameter =
      "Paramter n\xB0"
      "0 addr =";
  EXPECT_NE(std::string::npos, text.find(input + addressText(op.getInputPort(0))));
  EXPECT_NE(std::string::npos, text.find(output + addressText(op.getOutputPort(0))));
  EXPECT_NE(std::string::npos,
            text.find(parameter + addressText(op.getParameters()[0]) +
                      "  ID_NAME = k  LITERAL_VALUE = v\n---------------------------"));
}

// Tests port lookup by index and the refusals of setInputPort and addOutput.
TEST_F(ProcessObjectTest, PortsByIndexAndRefusals) {
  LoggingOperator op("op", &log, 2, 1);
  EXPECT_NE(nullptr, op.getInputPort(1));
  EXPECT_EQ(nullptr, op.getInputPort(2));
  EXPECT_EQ(nullptr, op.getOutputPort(1));
  EXPECT_EQ(op.getOutputPort(0)->getData()->getGenerator(), &op);

  validate({&op});
  out.take();
  op.setInputPort(2, nullptr);
  op.addOutput("imageObject");
  EXPECT_EQ(
      "ProcessObject::setInputPort no input port at index 2\n"
      "DataObjectFactory::isValidDataObectType Unkown DataObjectType\n",
      out.take());
  EXPECT_EQ(nullptr, op.getOutputPort(1));
  EXPECT_FALSE(op.isInvalidated());
}

// Tests that setInputPort invalidates whatever the connection's outcome.
TEST_F(ProcessObjectTest, SetInputPortAlwaysInvalidates) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log, 1, 0);
  vorn::PortProxy foreign("Other", &a);
  validate({&b});
  b.setInputPort(0, &foreign);  // refused: types differ
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
  validate({&b});
  b.setInputPort(0, a.getOutputPort(0));
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(a.getOutputPort(0)));
}

// Tests invalidation along a chain: observers in order, stopping at an invalidated operator.
TEST_F(ProcessObjectTest, InvalidationTravelsDownAChain) {
  LoggingOperator a("A", &log), b("B", &log), c("C", &log);
  connect(a, b);
  connect(b, c);
  observe({&a, &b, &c});
  validate({&a, &b, &c});
  a.setToInvalidated();
  EXPECT_EQ((EventLog{"invalidated:A", "invalidated:B", "invalidated:C"}), log);

  validate({&a, &c});  // B stays invalidated
  a.setToInvalidated();
  EXPECT_EQ(EventLog{"invalidated:A"}, log);
  EXPECT_FALSE(c.isInvalidated());
}

// Tests a diamond and an output feeding two inputs of one operator: each operator once, depth
// first in ascending input-port address order.
TEST_F(ProcessObjectTest, InvalidationReachesEachOperatorOnce) {
  LoggingOperator a("A", &log), b("B", &log), c("C", &log), d("D", &log, 2, 1),
      twice("T", &log, 2, 0);
  connect(a, b);
  connect(a, c);
  connect(b, d, 0);
  connect(c, d, 1);
  connect(a, twice, 0);
  connect(a, twice, 1);
  observe({&a, &b, &c, &d, &twice});
  validate({&a, &b, &c, &d, &twice});
  a.setToInvalidated();

  ASSERT_EQ(5u, log.size());  // each operator once
  for (const char* name : {"A", "B", "C", "D", "T"}) {
    EXPECT_EQ(1, std::count(log.begin(), log.end(), std::string("invalidated:") + name));
  }
  EXPECT_EQ("invalidated:A", log[0]);
  // Depth first: D completes right after the first of B and C to be reached.
  const auto firstBranch = std::find_if(log.begin(), log.end(), [](const std::string& e) {
    return e == "invalidated:B" || e == "invalidated:C";
  });
  EXPECT_EQ("invalidated:D", *(firstBranch + 1));
}

// Tests the repercussion switch: off, invalidation does nothing while validation still works.
TEST_F(ProcessObjectTest, RepercussionSwitch) {
  EXPECT_TRUE(Repercussion::isEnable());
  LoggingOperator a("A", &log), b("B", &log);
  connect(a, b);
  observe({&a, &b});
  validate({&a, &b});
  EXPECT_TRUE(Repercussion::setEnable(false));
  EXPECT_FALSE(Repercussion::setEnable(false));
  a.setToInvalidated();
  b.setToValidated();
  EXPECT_TRUE(Repercussion::setEnable(true) == false);
  EXPECT_FALSE(a.isInvalidated());
  EXPECT_EQ(EventLog{"validated:B"}, log);
}

// Tests observers: one entry per observer, ascending address order, and an observer that
// detaches itself and another during a notification.
TEST_F(ProcessObjectTest, ObserversAndDetachingDuringANotification) {
  class Detaching : public RecordingObserver {
   public:
    using RecordingObserver::RecordingObserver;
    void onInvalidated(ProcessObject* op) override {
      RecordingObserver::onInvalidated(op);
      op->detachObserver(this);
      op->detachObserver(other);
    }
    IObserver* other = nullptr;
  };
  LoggingOperator op("op", &log);
  EventLog first, second;
  Detaching low(&first), high(&second);
  Detaching* lower = &low < &high ? &low : &high;
  lower->other = lower == &low ? static_cast<vorn::IObserver*>(&high) : &low;
  op.attachObserver(&low);
  op.attachObserver(&low);
  op.attachObserver(&high);
  op.setToInvalidated();
  op.setToInvalidated();
  // The lower observer runs first and detaches both, so the other never hears.
  EXPECT_EQ(1u, (lower == &low ? first : second).size());
  EXPECT_EQ(0u, (lower == &low ? second : first).size());
}

// Tests the destructor: readers end unconnected and invalidated, kept data loses its generator.
TEST_F(ProcessObjectTest, DestructionReleasesReadersAndData) {
  auto a = std::make_unique<LoggingOperator>("A", &log);
  LoggingOperator b("B", &log);
  connect(*a, b);
  validate({&b});
  const boost::shared_ptr<vorn::DataObject> kept = a->getOutputPort(0)->getData();
  const std::string address = addressText(a.get());
  out.take();
  a.reset();
  EXPECT_EQ("In process Object destructor A : " + address + "\n", out.take());
  EXPECT_EQ(nullptr, kept->getGenerator());
  EXPECT_TRUE(kept->isUptodate());
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
}

// Tests disconnectAllOutputPorts with three readers: all go, highest input port first.
TEST_F(ProcessObjectTest, DisconnectAllOutputPorts) {
  LoggingOperator a("A", &log), r1("R1", &log), r2("R2", &log), r3("R3", &log);
  for (LoggingOperator* r : {&r1, &r2, &r3}) connect(a, *r);
  observe({&r1, &r2, &r3});
  validate({&r1, &r2, &r3});
  std::vector<std::pair<vorn::PortProxy*, std::string>> readers = {
      {r1.getInputPort(0), "invalidated:R1"},
      {r2.getInputPort(0), "invalidated:R2"},
      {r3.getInputPort(0), "invalidated:R3"}};
  std::sort(readers.rbegin(), readers.rend());
  a.disconnectAllOutputPorts();
  EXPECT_EQ((EventLog{readers[0].second, readers[1].second, readers[2].second}), log);
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
}

// Tests parameter lookup: exact names, first of duplicates wins, unknown names, null entries.
TEST_F(ProcessObjectTest, ParameterLookup) {
  LoggingOperator op("op", &log);
  EXPECT_EQ("NO_VALUE_FOR_SPECIFIED_IDNAME", op.getParameterValue("level"));
  op.addParameter(nullptr);
  op.addParameter(new Parameter("level", "1"));
  op.addParameter(new Parameter("level", "2"));
  EXPECT_EQ("1", op.getParameterValue("level"));
  EXPECT_EQ(&Parameter::NoValueForIDName, &op.getParameterValue("Level"));

  validate({&op});
  EXPECT_FALSE(op.setParameterValue("Level", "3"));
  EXPECT_FALSE(op.isInvalidated());
  EXPECT_TRUE(op.setParameterValue("level", "1"));  // same value: still invalidates
  EXPECT_TRUE(op.isInvalidated());
  EXPECT_EQ("2", op.getParameters()[2]->getValue());
  EXPECT_EQ(3u, static_cast<const ProcessObject&>(op).getParameters().size());
}

}  // namespace

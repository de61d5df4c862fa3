#include "vorn/Port.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"

namespace {

using vorn::PortProxy;

// The library prints a line for every destroyed operator; tests that do not look at standard
// output keep it out of the test log.
class PortTest : public ::testing::Test {
 protected:
  CoutCapture out;
  EventLog log;
};

class BarePort : public vorn::Port {
 public:
  boost::shared_ptr<vorn::DataObject> getData() const override { return {}; }
};

// Tests that a default port has the unspecified type and no parent.
TEST_F(PortTest, DefaultPort) {
  BarePort port;
  EXPECT_EQ("Unspecified DataObject", port.getRelatedDataType());
  EXPECT_EQ(nullptr, port.getParent());
  EXPECT_EQ(0u, port.getNumberOfUse());
}

// Tests that data types must match exactly and that a refused connection changes nothing.
TEST_F(PortTest, ConnectionNeedsTheExactDataType) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log, 1, 0);
  connect(a, b);
  for (const char* type : {"imageobject", "ImageObject ", "Other"}) {
    LoggingOperator other("other", &log, 0, 0);
    PortProxy foreign(type, &other);
    b.setToValidated();
    out.take();
    b.getInputPort(0)->connectTo(&foreign);
    EXPECT_EQ("PortProxy::connectTo Connection impossible because data object types differ\n",
              out.take());
    EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(a.getOutputPort(0)));
    EXPECT_EQ(1u, a.getOutputPort(0)->getNumberOfUse());
    EXPECT_EQ(0u, foreign.getNumberOfUse());
    EXPECT_FALSE(b.isInvalidated());  // nothing invalidated
  }
}

// Tests connect, reconnect and disconnect: both sides of the registry move together and the
// reading operator is invalidated each time, even when it was not connected.
TEST_F(PortTest, ConnectAndDisconnectKeepTheRegistry) {
  LoggingOperator a("A", &log, 0, 1), c("C", &log, 0, 1), b("B", &log, 1, 0);
  PortProxy* input = b.getInputPort(0);
  EXPECT_TRUE(input->isConnectedTo(nullptr));
  EXPECT_FALSE(input->getData());

  input->connectTo(a.getOutputPort(0));
  EXPECT_EQ(a.getOutputPort(0)->getData(), input->getData());
  input->connectTo(c.getOutputPort(0));
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
  EXPECT_EQ(1u, c.getOutputPort(0)->getNumberOfUse());
  EXPECT_EQ(c.getOutputPort(0), PortProxy::getConnection(input));
  EXPECT_EQ(nullptr, PortProxy::getConnection(c.getOutputPort(0)));  // not an input port

  b.setToValidated();
  input->connectTo(nullptr);
  EXPECT_TRUE(input->isConnectedTo(nullptr));
  EXPECT_EQ(0u, c.getOutputPort(0)->getNumberOfUse());
  EXPECT_TRUE(b.isInvalidated());

  b.setToValidated();
  input->disconnect();  // already unconnected: still invalidates
  EXPECT_TRUE(b.isInvalidated());
}

// Tests chains of input ports: the data comes from the output port at the end, and a broken
// link or a loop back gives nothing.
TEST_F(PortTest, ChainsOfInputPorts) {
  LoggingOperator a("A", &log, 0, 1), middle("M", &log, 1, 0), reader("R", &log, 1, 0);
  PortProxy* first = middle.getInputPort(0);
  PortProxy* second = reader.getInputPort(0);
  second->connectTo(first);
  EXPECT_FALSE(second->getData());
  first->connectTo(a.getOutputPort(0));
  EXPECT_EQ(a.getOutputPort(0)->getData(), second->getData());

  out.take();
  first->connectTo(second);  // would make getData() go round forever
  EXPECT_EQ(
      "PortProxy::connectTo Connection impossible because it would close a loop of input ports\n",
      out.take());
  EXPECT_TRUE(first->isConnectedTo(a.getOutputPort(0)));
  first->connectTo(first);
  EXPECT_TRUE(first->isConnectedTo(a.getOutputPort(0)));
}

// Tests that destroying an output port disconnects and invalidates its readers, the one at the
// higher address first.
TEST_F(PortTest, DestroyingAnOutputDisconnectsReadersHighestFirst) {
  auto a = std::make_unique<LoggingOperator>("A", &log, 0, 1);
  LoggingOperator b("B", &log, 1, 0), c("C", &log, 1, 0);
  connect(*a, b);
  connect(*a, c);
  EXPECT_EQ(2u, a->getOutputPort(0)->getNumberOfUse());
  b.setToValidated();
  c.setToValidated();
  RecordingObserver observer(&log);
  b.attachObserver(&observer);
  c.attachObserver(&observer);

  const bool bFirst = b.getInputPort(0) > c.getInputPort(0);
  a.reset();
  EXPECT_EQ((EventLog{bFirst ? "invalidated:B" : "invalidated:C",
                      bFirst ? "invalidated:C" : "invalidated:B"}),
            log);
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_TRUE(c.getInputPort(0)->isConnectedTo(nullptr));
}

// Tests that destroying an input port leaves its own operator alone and unregisters it.
TEST_F(PortTest, DestroyingAnInputPortInvalidatesNobody) {
  LoggingOperator a("A", &log, 0, 1), owner("B", &log, 0, 0);
  auto input = std::make_unique<PortProxy>("ImageObject", &owner);
  input->connectTo(a.getOutputPort(0));
  owner.setToValidated();
  input.reset();
  EXPECT_FALSE(owner.isInvalidated());
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
}

// Tests that an input port without an operator connects and disconnects without invalidating.
TEST_F(PortTest, PortWithoutParent) {
  LoggingOperator a("A", &log, 0, 1);
  PortProxy orphan("ImageObject", nullptr);
  orphan.connectTo(a.getOutputPort(0));
  EXPECT_EQ(1u, a.getOutputPort(0)->getNumberOfUse());
  orphan.disconnect();
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
}

// Tests the three printed forms.
TEST_F(PortTest, PrintedForms) {
  LoggingOperator a("A", &log, 0, 1), b("B", &log, 1, 0);
  PortProxy* input = b.getInputPort(0);
  const vorn::Port* output = a.getOutputPort(0);
  out.take();
  input->print();
  EXPECT_EQ("Port : this= " + addressText(input) +
                "\nPort : objecttype= ImageObject\n\n  ConnectedTo = 0\n",
            out.take());
  connect(a, b);
  out.take();
  input->print();
  EXPECT_EQ("Port : this= " + addressText(input) +
                "\nPort : objecttype= ImageObject\n\n  ConnectedTo = " + addressText(output) + "\n",
            out.take());
  output->print();
  EXPECT_EQ("PortData : " + addressText(output) +
                "\nDataObjectName : ImageObject\n\n  Generator = " + addressText(&a) +
                "\nDimension : 0\nNo data yet\n",
            out.take());
}

// Tests setData: a matching object replaces the data, an empty one is refused.
TEST_F(PortTest, SetDataReplacesMatchingData) {
  LoggingOperator a("A", &log, 0, 1);
  vorn::PortData* port = dynamic_cast<vorn::PortData*>(a.getOutputPort(0));
  boost::shared_ptr<vorn::DataObject> image(new vorn::ImageObject);
  out.take();
  port->setData(image);
  EXPECT_EQ(image, port->getData());
  EXPECT_EQ(nullptr, image->getGenerator());  // setData sets no generator
  port->setData(boost::shared_ptr<vorn::DataObject>());
  EXPECT_EQ("PortData::setData empty data object refused\n", out.take());
  EXPECT_EQ(image, port->getData());
}

// Tests that data of another type name ends the process with status 1.
TEST(PortDeathTest, SetDataOfAnotherTypeExits) {
  EXPECT_EXIT(
      {
        vorn::PortData port("ImageObject", nullptr);
        boost::shared_ptr<vorn::DataObject> other(new vorn::ImageObject);
        other->m_dataObjectName = "Other";
        port.setData(other);
      },
      ::testing::ExitedWithCode(1), "");
}

}  // namespace

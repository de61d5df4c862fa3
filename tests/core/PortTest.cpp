#include "vorn/Port.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/PortData.hpp"

namespace {

using vorn::PortProxy;

class PortTest : public ::testing::Test {
 protected:
  CoutCapture out;
  EventLog log;
  LoggingOperator a{"A", &log, 0, 1}, b{"B", &log, 1, 0}, c{"C", &log, 1, 0};
};

// Tests that only the exact data type connects and a refusal changes nothing; that both sides of
// the registry move together; that disconnecting invalidates the reader, except for input ports
// destroyed or without operator.
TEST_F(PortTest, Connections) {
  PortProxy* input = b.getInputPort(0);
  EXPECT_TRUE(input->isConnectedTo(nullptr));
  EXPECT_FALSE(input->getData());
  connect(a, b);
  connect(a, c);
  b.setToValidated();
  for (const char* type : {"imageobject", "ImageObject ", "Unspecified DataObject"}) {
    PortProxy foreign(type, &c);
    input->connectTo(&foreign);
    EXPECT_EQ("PortProxy::connectTo Connection impossible because data object types differ\n",
              out.take());
  }
  EXPECT_FALSE(b.isInvalidated());
  EXPECT_EQ(a.getOutputPort(0)->getData(), input->getData());
  EXPECT_EQ(a.getOutputPort(0), PortProxy::getConnection(input));
  EXPECT_EQ(2u, a.getOutputPort(0)->getNumberOfUse());
  input->connectTo(nullptr);
  EXPECT_EQ(1u, a.getOutputPort(0)->getNumberOfUse());
  EXPECT_TRUE(b.isInvalidated());
  b.setToValidated();
  input->disconnect();
  EXPECT_TRUE(b.isInvalidated());

  c.getInputPort(0)->disconnect();
  auto extra = std::make_unique<PortProxy>("ImageObject", &b);
  PortProxy orphan("ImageObject", nullptr);
  extra->connectTo(a.getOutputPort(0));
  orphan.connectTo(a.getOutputPort(0));
  b.setToValidated();
  extra.reset();
  orphan.disconnect();
  EXPECT_FALSE(b.isInvalidated());
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
}

// Tests chains of input ports: data from the output port at the end, nothing through a broken
// link, and loops refused.
TEST_F(PortTest, ChainsOfInputPorts) {
  PortProxy* first = b.getInputPort(0);
  c.getInputPort(0)->connectTo(first);
  EXPECT_FALSE(c.getInputPort(0)->getData());
  first->connectTo(a.getOutputPort(0));
  EXPECT_EQ(a.getOutputPort(0)->getData(), c.getInputPort(0)->getData());
  out.take();
  first->connectTo(first);
  EXPECT_EQ(
      "PortProxy::connectTo Connection impossible because it would close a loop of input ports\n",
      out.take());
  EXPECT_TRUE(first->isConnectedTo(a.getOutputPort(0)));
}

// Tests the printed forms of an input port, an output port and its data.
TEST_F(PortTest, PrintedForms) {
  connect(a, b);
  out.take();
  b.getInputPort(0)->print();
  a.getOutputPort(0)->print();
  EXPECT_EQ(
      "Port : this= " + addressText(b.getInputPort(0)) +
          "\nPort : objecttype= ImageObject\n\n  ConnectedTo = " + addressText(a.getOutputPort(0)) +
          "\nPortData : " + addressText(a.getOutputPort(0)) +
          "\nDataObjectName : ImageObject\n\n  Generator = " + addressText(&a) +
          "\nDimension : 0\nNo data yet\n",
      out.take());
}

// Tests output data: none for a type the factory does not know; setData replaces matching data
// without a generator, refuses empty data, and ends the process on another type name.
TEST_F(PortTest, OutputData) {
  vorn::PortData unknown("imageObject", &a);
  EXPECT_EQ("DataObjectFactory::createInstance Unkown DataObjectType\n", out.take());
  EXPECT_FALSE(unknown.getData());
  auto* port = dynamic_cast<vorn::PortData*>(a.getOutputPort(0));
  const boost::shared_ptr<vorn::DataObject> replaced = port->getData();
  boost::shared_ptr<vorn::DataObject> image(new vorn::ImageObject);
  port->setData(image);
  EXPECT_EQ(nullptr, replaced->getGenerator());  // may outlive its operator now
  port->setData(boost::shared_ptr<vorn::DataObject>());
  EXPECT_EQ("PortData::setData empty data object refused\n", out.take());
  EXPECT_EQ(image, port->getData());
  EXPECT_EQ(nullptr, image->getGenerator());
  image->m_dataObjectName = "Other";
  EXPECT_EXIT(port->setData(image), ::testing::ExitedWithCode(1), "");
}

}  // namespace

// vorn/PortProxy.hpp
//
// PortProxy: an input port. It holds no data: it refers to the port it is connected to (an
// output port, or another input port when a composite exposes it) and hands out the data at
// the end of that chain.
//
// Connecting or disconnecting invalidates the readers first: the port's own operator, or, for
// a port of a composite, the operators that read through it.
#pragma once

#include "vorn/Port.hpp"

namespace vorn {

// An input port: reads the data of the port it is connected to.
class VORN_API PortProxy : public Port {
 public:
  // An unconnected input port of `dataType` belonging to `parent`.
  PortProxy(const std::string& dataType, ProcessObject* parent);
  // Leaves its connection silently (nobody is invalidated), then disconnects the input ports
  // chained to it.
  ~PortProxy() override;

  // Port's two lines, then "\n  ConnectedTo = <address>".
  void print() const override;
  // The data of the output port at the end of the chain; empty when any link is unconnected.
  boost::shared_ptr<DataObject> getData() const override;
  // Null disconnects. A port of another data type is refused with
  // "PortProxy::connectTo Connection impossible because data object types differ", and a port
  // whose chain leads back to this one is refused with one line too; either way the present
  // connection stays. Otherwise disconnects (invalidating), then connects, unless an observer
  // destroyed either port during the invalidation; an exception from an observer is rethrown
  // once connected.
  virtual void connectTo(const Port* port);
  // Invalidates the readers (even when unconnected), then leaves the connection; an exception
  // from an observer is rethrown once it is left.
  virtual void disconnect();
  // Whether the connection is `port`; an unconnected port answers true for null.
  virtual bool isConnectedTo(const Port* port) const;
  // The port this one reads, or null.
  virtual const Port* getConnection() const;
  // Ports are always created non-const by their operator, so handing out the stored pointer
  // as non-const is safe.
  virtual Port* getConnection();
  // The connection of `port` when it is an input port; null otherwise.
  static const Port* getConnection(const Port* port);

 private:
  bool leadsBackHere(const Port* port) const;
  // Writes the refusal line when `port` leads back here.
  bool refuseLoop(const Port* port) const;
  void invalidateReaders();

  const Port* m_connection;  // not owned; null while unconnected
};

}  // namespace vorn

// vorn/ProcessObject.hpp
//
// ProcessObject: base of every operator in a vorn pipeline. A client derives from it, adds its
// ports in the constructor (addInput, addOutput with a data type name such as "ImageObject")
// and implements generateData(), which reads the input ports' data and writes the output
// ports' data objects.
//
//   class Threshold : public vorn::ProcessObject {
//    public:
//     Threshold() { addInput("ImageObject"); addOutput("ImageObject");
//                   addParameter(new vorn::Parameter("level", "128")); }
//     void generateData() override { /* read getInputPort(0)->getData() ... */ }
//   };
//
// The operator drives nothing by itself: changes push invalidation downstream (connecting,
// disconnecting, setting a parameter, requesting a region, setToInvalidated()), and update()
// pulls stale operators upstream before computing this one if it is invalidated. Both follow
// the process-wide Repercussion switch.
//
// Deep chains: invalidation (and so destruction, which invalidates the readers) uses bounded
// stack whatever the length of a chain; past 1000 nested invalidations the code an override of
// setToInvalidated runs after calling the base runs before, not after, the readers behind it are
// invalidated. update() recurses once per stale operator upstream and refuses, with
// std::ios_base::failure and nothing changed, when the thread's stack runs low (256 KiB left,
// or a quarter of a small stack); updating an operator part of the way up first, then the rest,
// works. On a stack vorn cannot locate (a fiber's), nothing is refused.
//
// Re-entrancy: observers and computations may update, invalidate, rewire, or destroy other
// operators. An update whose operator is destroyed under it throws std::ios_base::failure; an
// operator validates only if its inputs are still up to date when its computation ends. An
// exception from onInvalidated is rethrown once the invalidation has finished (it cannot stop
// halfway), and dropped when the invalidation comes from a destructor.
//
// Ownership: the operator owns its ports and parameters and deletes them when destroyed; its
// parent (a composite pipeline) and observers are plain back-pointers. Destroying an operator
// disconnects every reader of its outputs (they end unconnected and invalidated) and clears
// the generator of output data still held elsewhere. Not thread-safe.
//
// Sources: src/core/ProcessObject.cpp holds construction, ports, observers, invalidation (the
// walk BasePipeline shares too) and parameters; src/core/ProcessObjectUpdate.cpp the update engine
// (update, the cycle check, updateWithNoRepercussion, updateOutputData);
// src/roi/ProcessObjectRegions.cpp the regions of interest.
#pragma once

#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vorn/Export.hpp"
#include "vorn/Object.hpp"

namespace vorn {

class IObserver;
class Parameter;
class Port;
class PortProxy;
class RoiObject;
namespace internal {
class InvalidationScope;
}

// The base of every operator: ports, parameters, observers, update, invalidation.
class VORN_API ProcessObject : public Object {
 public:
  // No ports, empty name, invalidated, no parent, no observers.
  ProcessObject();
  // Writes "In process Object destructor <name> : <address>", deletes the input ports, then
  // the output ports (after clearing the generator of their data), then the parameters.
  // Fires nothing and does not touch the parent.
  ~ProcessObject() override;
  ProcessObject(const ProcessObject&) = delete;
  ProcessObject& operator=(const ProcessObject&) = delete;

  // With repercussion on: brings each input's data up to date in index order (pulling stale
  // operators upstream), then, if this operator is invalidated, settles its output regions and
  // computes it (updateOutputData), and finally validates it, unless an input went stale or
  // lost its data meanwhile (then it stays invalidated). With repercussion off:
  // updateWithNoRepercussion(). Failures throw std::ios_base::failure; the operator then stays
  // invalidated. An up-to-date operator costs a walk over its own inputs only. Refused too
  // deep in a chain and when the operator is destroyed under it (see the top of this file).
  void update() override;
  // Whether this is a composite (a pipeline); false here.
  virtual bool isComposite();
  // Settles each output's region just before a computation: its requested region, or else the
  // region of input 0's data when that data comes from the same composite (same parent);
  // nothing at all while the ignore-previous flag is set.
  virtual void generateOutputRegionOfInterest();
  // The name given by setName (empty at first).
  virtual const std::string& getName() const;
  // The framed description: address, name, flag, parent, then every port and parameter.
  virtual void print() const;
  // Whether the outputs are stale.
  virtual bool isInvalidated();
  // With repercussion on: sets the flag, fires onInvalidated, then invalidates, depth first,
  // each operator reading an output that is not already invalidated (composites by their own
  // rules). With repercussion off: nothing. An exception from an observer or an override
  // along the way is rethrown once the whole walk is done.
  virtual void setToInvalidated();
  // Clears the flag and fires onValidated, whatever the flag was.
  virtual void setToValidated();
  // Appends an output port holding a new data object of `dataType` generated by this operator.
  // A name the factory does not know is refused (the factory's line) before any port is made.
  virtual void addOutput(const std::string& dataType);
  // The computation.
  virtual void generateData() = 0;

  // Names the operator (in its timing line, errors and graphs).
  void setName(const std::string& name);
  // The pipeline containing this operator, or null.
  const ProcessObject* getParent() const;
  // Records the containing pipeline (pipelines do this when registering).
  void setParent(const ProcessObject* parent);

  // Appends an input port of `dataType`. Invalidates nothing.
  void addInput(const std::string& dataType);
  // How many input ports.
  unsigned int getNumberOfInputPorts() const;
  // How many output ports.
  unsigned int getNumberOfOutputPorts() const;
  // The port at `index`, or null when there is none.
  PortProxy* getInputPort(unsigned int index);
  // The input port at `index`, or null.
  const PortProxy* getInputPort(unsigned int index) const;
  // The output port at `index`, or null.
  Port* getOutputPort(unsigned int index);
  // The output port at `index`, or null.
  const Port* getOutputPort(unsigned int index) const;
  // Connects input `index` to `port` (null disconnects), then invalidates this operator
  // whatever the connection's outcome. An index out of range is refused with one line.
  void setInputPort(unsigned int index, const Port* port);
  // Disconnects every input port, each invalidating this operator.
  void disconnectAllInputPorts();
  // Disconnects every reader of every output, highest address first per port.
  void disconnectAllOutputPorts();
  // disconnectAllInputPorts, then disconnectAllOutputPorts.
  void disconnectAllPorts();

  // Observers are notified in ascending address order; attaching twice keeps one entry. An
  // observer that throws ends the notification there, except for onInvalidated: the others
  // still hear of it, then the first exception is rethrown.
  void attachObserver(IObserver* observer);
  // Stops notifying `observer`; nothing when it is not attached.
  void detachObserver(IObserver* observer);
  // Tells the observers the computation has written its outputs.
  void fireOnDataHasBeenGenerated();
  // Tells the observers a computation starts.
  void fireOnStartComputingData();
  // Tells the observers the operator was invalidated.
  void fireOnInvalidated();
  // Tells the observers the operator was validated.
  void fireOnValidated();
  // Tells the observers a parameter changed.
  void fireOnParameterHasBeenChanged();
  // fireOnDataHasBeenGenerated, for what ends a computation.
  void notifyDataHasBeenGenerated();

  // Whether update() is running for this operator, further up the stack.
  bool isUpdating() const;
  // Whether invalidated operators upstream of this one lead back to it, so that pulling it
  // would never end. Walks upstream with a list of its own, not by recursion.
  bool isOnStaleCycle();

  // Recomputes this operator alone from the data its inputs hold; reads and changes no flag.
  // Throws std::ios_base::failure when an input has no data or nothing computed in it.
  void updateWithNoRepercussion();
  // One timed computation: onStartComputingData, "Processing with operator : <name> - adr :
  // <address>" (flushed, the line left open for what generateData() writes), generateData(),
  // ". Computation done in <seconds> s ", onDataHasBeenGenerated. A std::exception from the
  // computation comes out as std::ios_base::failure naming the operator; anything else passes
  // through unchanged.
  void updateOutputData();

  // Requests `roi` on output `index`: stored as the output data's requested and current region,
  // then the operator is invalidated (also for the same or an empty region). An index without
  // output data is refused with one line.
  void setRequestedRegionOfInterest(unsigned int index, boost::shared_ptr<RoiObject const> roi);
  // Whether output regions are left as they are before computations.
  bool isIgnorePreviousROI();
  // Changes no region and invalidates nothing by itself.
  void setIgnorePreviousROI(bool ignore);

  // Takes ownership. Duplicate ID names are kept; the first one added wins every lookup.
  void addParameter(Parameter* parameter);
  // The parameters, in insertion order (owned by the operator).
  std::vector<Parameter*>& getParameters();
  // The parameters, in insertion order.
  std::vector<const Parameter*> getParameters() const;
  // The value of the first parameter named `idName`, or Parameter::NoValueForIDName.
  const std::string& getParameterValue(const std::string& idName);
  // Sets the first parameter named `idName` and invalidates the operator (even for an equal
  // value); false, with nothing changed, when there is none.
  bool setParameterValue(const std::string& idName, const std::string& value);

 protected:
  // Invalidates the readers of `output` as setToInvalidated does for each output.
  void invalidateReadersOf(const Port* output);

  std::vector<PortProxy*> m_inputs;      // owning; entries nulled while being deleted
  std::vector<Port*> m_outputs;          // owning; PortData here, PortProxy in composites
  std::vector<Parameter*> m_parameters;  // owning, in insertion order
  std::string m_name;                    // set by setName
  bool m_invalidated;                    // a new operator is invalidated
  const ProcessObject* m_parent;         // back-pointer to the containing pipeline, or null
  bool m_ignorePreviousROI;              // see setIgnorePreviousROI
  std::set<IObserver*> m_observers;      // non-owning, ordered by address

 private:
  friend class internal::InvalidationScope;  // marks plain operators in line (ProcessObject.cpp)

  bool m_isUpdating;  // set while update() runs here, to stop a cycle instead of recursing
};

}  // namespace vorn

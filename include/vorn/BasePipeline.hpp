// vorn/BasePipeline.hpp
//
// BasePipeline: an operator made of operators. It shares ownership of its inner operators and
// exposes some of their ports as its own; both sides of a pipeline are input ports (PortProxy).
//
//   vorn::BasePipeline smooth;
//   smooth.addInput("ImageObject");
//   smooth.addOutput("ImageObject");
//   smooth.registerOperator(blur);                        // boost::shared_ptr<ProcessObject>
//   blur->setInputPort(0, smooth.getInputPort(0));        // blur reads the pipeline's input
//   static_cast<vorn::PortProxy*>(smooth.getOutputPort(0))
//       ->connectTo(blur->getOutputPort(0));              // the pipeline's output is blur's
//   smooth.setInputPort(0, reader.getOutputPort(0));      // and it is fed from outside
//
// Updating a pipeline updates the data behind each of its outputs; it computes nothing itself.
// It counts as invalidated while any inner operator is. Invalidating it invalidates the inner
// operators that read its inputs; an inner operator's invalidation leaves through the exposed
// outputs to the operators downstream of the pipeline. A region of interest set on the pipeline
// is requested on every output of its input and source operators, and of every operator it
// registers; the others receive it by ordinary propagation.
//
// Lifetime: destroying the pipeline releases its inner operators last registered first (each
// loses its parent first), then its region, then its own ports. Not thread-safe.
#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vorn/ProcessObject.hpp"

namespace vorn {

class Port;
class RoiObject;

// An operator made of operators, exposing some of their ports as its own.
class VORN_API BasePipeline : public ProcessObject {
 public:
  // Named "No named pipeline"; no ports, no operators, no region.
  BasePipeline();
  ~BasePipeline() override;

  // Updates the data behind each output port in index order, then clears the pipeline's own
  // flag directly (no event). An output leading to no data is reported with one line. A
  // pipeline destroyed by an observer meanwhile ends it with std::ios_base::failure.
  void update() override;
  // True: a pipeline is a composite.
  bool isComposite() override;
  // "\nPIPELINE PORTS ...\n", the operator's own print, then each inner operator's.
  void print() const override;
  // True as soon as one inner operator, in registration order, is invalidated.
  bool isInvalidated() override;
  // With repercussion on: invalidates the operators reading the pipeline's inputs (those not
  // already invalidated; composites always, except this pipeline and its parent). The
  // pipeline's own flag and observers are left alone. Reached again from its own walk with no
  // operator invalidated since it began (pipelines whose inputs read each other's), it does
  // nothing: that walk would repeat without end.
  void setToInvalidated() override;
  // Appends an output port (a PortProxy, no data object of its own) of `dataType`.
  void addOutput(const std::string& dataType) override;
  // A pipeline computes nothing itself.
  void generateData() override;
  // Connects input `index` to `port` like the operator's version, then invalidates once more.
  virtual void setInputPort(unsigned int index, const Port* port);

  // Appends `op` (twice if given twice), makes the pipeline its parent, hands it the
  // pipeline's region and raises the pipeline's flag without notifying. An empty pointer, or
  // an operator that contains this pipeline (itself included), is refused with one line.
  void registerOperator(boost::shared_ptr<ProcessObject> op);
  // Clears the parent of `op`, drops the first entry holding it (if any) and raises the flag.
  void unRegisterOperator(boost::shared_ptr<ProcessObject> op);
  // Looks in this pipeline's own list only, not in nested pipelines.
  bool isContainingProcessObject(boost::shared_ptr<const ProcessObject> op) const;
  // Whether `op` is registered here (directly, not in a nested pipeline).
  bool isContainingProcessObject(const ProcessObject* op) const;
  // The registered operators, in registration order.
  std::vector<ProcessObject*> getOperators() const;
  // Deletes one of the pipeline's own ports; later ports move down one index.
  void removePort(Port* port);

  // The pipeline-wide region: stored, announced with one line, then handed to the input and
  // source operators. Invalidates only the operators whose requests change.
  void setRequestedRegionOfInterest(boost::shared_ptr<RoiObject const> roi);
  // The per-output request of the operator part stays reachable too.
  using ProcessObject::setRequestedRegionOfInterest;
  // Hands the pipeline-wide region to the input and source operators again.
  void manageResquestedROIassignation();
  // Requests the pipeline's region on every output of `op` whose request differs from it, with
  // one line per output.
  void assignResquestedROItoOperator(ProcessObject* op);

 protected:
  boost::shared_ptr<RoiObject const> m_requestedROI;          // shared with the requests made
  std::vector<boost::shared_ptr<ProcessObject>> m_operators;  // shared ownership, in order

 private:
  bool isWithin(const ProcessObject* op) const;
};

}  // namespace vorn

#include "vorn/BasePipeline.hpp"

#include <algorithm>
#include <iostream>

#include "core/InvalidationWalk.hpp"
#include "core/OrderedVisit.hpp"
#include "core/Reentrancy.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"
#include "vorn/RoiObject.hpp"

namespace vorn {

BasePipeline::BasePipeline() { setName("No named pipeline"); }

BasePipeline::~BasePipeline() {
  while (!m_operators.empty()) {
    // The copy keeps the operator alive until the list is consistent again; it is destroyed
    // here, at the end of the iteration, when the pipeline was its last owner.
    const boost::shared_ptr<ProcessObject> last = m_operators.back();
    unRegisterOperator(last);
  }
  m_requestedROI.reset();
}

void BasePipeline::update() {
  const internal::Presence present(this);
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    const boost::shared_ptr<DataObject> data = m_outputs[i]->getData();
    if (!data) {
      std::cout << "BasePipeline::update output port " << i << " of pipeline " << m_name
                << " leads to no data" << std::endl;
      continue;
    }
    data->update();
    if (present.gone()) internal::throwDestroyedDuringUpdate();
  }
  m_invalidated = false;
}

bool BasePipeline::isComposite() { return true; }

void BasePipeline::print() const {
  std::cout << "\nPIPELINE PORTS ...\n";
  ProcessObject::print();
  for (const boost::shared_ptr<ProcessObject>& op : m_operators) {
    std::cout << "\n*******PIPELINE OPERATOR*********\n";
    op->print();
  }
}

bool BasePipeline::isInvalidated() {
  for (std::size_t i = 0; i < m_operators.size(); ++i) {
    if (m_operators[i]->isInvalidated()) return true;
  }
  return false;
}

void BasePipeline::setToInvalidated() {
  if (!Repercussion::isEnable()) return;
  internal::InvalidationScope scope(this);
  scope.walkReaders(internal::Readers::OfInputs);
}

void BasePipeline::addOutput(const std::string& dataType) {
  m_outputs.push_back(new PortProxy(dataType, this));
}

void BasePipeline::generateData() {}

void BasePipeline::setInputPort(unsigned int index, const Port* port) {
  const internal::Presence present(this);
  internal::FirstFailure failure;
  failure.attempt([&] { ProcessObject::setInputPort(index, port); });
  if (!present.gone() && index < m_inputs.size()) failure.attempt([this] { setToInvalidated(); });
  failure.rethrow();
}

// ---- inner operators ----

// Whether `op` is this pipeline or a pipeline that holds it, at any depth of nesting.
bool BasePipeline::isWithin(const ProcessObject* op) const {
  if (op == this) return true;
  const BasePipeline* pipeline = dynamic_cast<const BasePipeline*>(op);
  if (pipeline == nullptr) return false;
  for (const boost::shared_ptr<ProcessObject>& inner : pipeline->m_operators) {
    if (isWithin(inner.get())) return true;
  }
  return false;
}

void BasePipeline::registerOperator(boost::shared_ptr<ProcessObject> op) {
  if (!op) {
    std::cout << "BasePipeline::registerOperator empty operator refused" << std::endl;
    return;
  }
  if (isWithin(op.get())) {
    std::cout << "BasePipeline::registerOperator " << op->getName()
              << " contains this pipeline : refused" << std::endl;
    return;
  }
  m_operators.push_back(op);
  std::cout << "In VORN::BasePipeline : ROI set to new operator " << op->getName() << std::endl;
  op->setParent(this);
  const internal::Presence present(this);
  internal::FirstFailure failure;
  failure.attempt([&] { assignResquestedROItoOperator(op.get()); });
  if (!present.gone()) m_invalidated = true;
  failure.rethrow();
}

void BasePipeline::unRegisterOperator(boost::shared_ptr<ProcessObject> op) {
  if (!op) {
    std::cout << "BasePipeline::unRegisterOperator empty operator refused" << std::endl;
    return;
  }
  op->setParent(nullptr);
  const auto entry = std::find(m_operators.begin(), m_operators.end(), op);
  if (entry != m_operators.end()) m_operators.erase(entry);
  m_invalidated = true;
}

bool BasePipeline::isContainingProcessObject(boost::shared_ptr<const ProcessObject> op) const {
  return isContainingProcessObject(op.get());
}

bool BasePipeline::isContainingProcessObject(const ProcessObject* op) const {
  return std::any_of(
      m_operators.begin(), m_operators.end(),
      [op](const boost::shared_ptr<ProcessObject>& entry) { return entry.get() == op; });
}

std::vector<ProcessObject*> BasePipeline::getOperators() const {
  std::vector<ProcessObject*> operators;
  operators.reserve(m_operators.size());
  for (const boost::shared_ptr<ProcessObject>& op : m_operators) operators.push_back(op.get());
  return operators;
}

// ---- ports ----

namespace {

// Deletes `port` if `ports` owns it. The entry is nulled first, so invalidation that runs
// while the port is being deleted never walks it.
template <class P>
bool deleteOwnedPort(std::vector<P*>& ports, Port* port) {
  const auto entry = std::find(ports.begin(), ports.end(), port);
  if (entry == ports.end()) return false;
  const auto index = entry - ports.begin();
  *entry = nullptr;
  delete port;
  ports.erase(ports.begin() + index);
  return true;
}

}  // namespace

void BasePipeline::removePort(Port* port) {
  if (port == nullptr) return;
  if (!deleteOwnedPort(m_inputs, port)) deleteOwnedPort(m_outputs, port);
}

// ---- region of interest ----

void BasePipeline::setRequestedRegionOfInterest(boost::shared_ptr<RoiObject const> roi) {
  m_requestedROI = roi;
  std::cout << "In VORN::BasePipeline : ROI set to pipeline and appropriate children" << std::endl;
  manageResquestedROIassignation();
}

// Requesting a region invalidates: observers may throw (every operator still gets the region,
// then the first exception is rethrown) or destroy operators, ports or this pipeline.
void BasePipeline::manageResquestedROIassignation() {
  const internal::Presence present(this);
  internal::FirstFailure failure;
  for (std::size_t i = 0; !present.gone() && i < m_inputs.size(); ++i) {
    if (m_inputs[i] == nullptr) continue;
    const internal::Presence inputPresent(m_inputs[i]);
    internal::visitInOrder(
        m_inputs[i]->getAttachedProxies(),
        [this, &failure](PortProxy* reader) {
          ProcessObject* const op = reader->getParent();
          if (op != nullptr && op != this) {
            failure.attempt([this, op] { assignResquestedROItoOperator(op); });
          }
        },
        [&inputPresent] { return inputPresent.gone(); });
  }
  for (std::size_t i = 0; !present.gone() && i < m_operators.size(); ++i) {
    const boost::shared_ptr<ProcessObject> op = m_operators[i];  // kept alive while handed one
    if (op->getInputPort(0) == nullptr) {
      failure.attempt([this, &op] { assignResquestedROItoOperator(op.get()); });
    }
  }
  failure.rethrow();
}

void BasePipeline::assignResquestedROItoOperator(ProcessObject* op) {
  const internal::Presence present(this), opPresent(op);
  internal::FirstFailure failure;
  for (unsigned int i = 0; !present.gone() && !opPresent.gone() && op->getOutputPort(i) != nullptr;
       ++i) {
    const boost::shared_ptr<DataObject> data = op->getOutputPort(i)->getData();
    // An output that leads to no data yet (a nested pipeline not wired up) has nothing to hold
    // a request.
    if (!data || data->m_requestedRegionOfInterest.get() == m_requestedROI.get()) continue;
    std::cout << "BasePipeline::assignRequestedROI to outport " << i << " of Operator "
              << op->getName() << "( considered as an input operator of the pipeline " << getName()
              << " )" << std::endl;
    const boost::shared_ptr<RoiObject const> roi = m_requestedROI;
    failure.attempt([op, i, &roi] { op->setRequestedRegionOfInterest(i, roi); });
  }
  failure.rethrow();
}

}  // namespace vorn

#include "vorn/ProcessObject.hpp"

#include <iostream>
#include <set>
#include <unordered_map>
#include <vector>

#include "core/InvalidationWalk.hpp"
#include "core/OrderedVisit.hpp"
#include "core/Reentrancy.hpp"
#include "core/StackDepth.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/DataObjectFactory.hpp"
#include "vorn/IObserver.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace vorn {

ProcessObject::ProcessObject()
    : m_invalidated(true), m_parent(nullptr), m_ignorePreviousROI(false), m_isUpdating(false) {}

ProcessObject::~ProcessObject() {
  std::cout << "In process Object destructor " << m_name << " : " << static_cast<const void*>(this)
            << std::endl;
  // Each entry is nulled before its port goes, so an invalidation that comes back here while
  // the ports are being deleted never walks a deleted port.
  for (PortProxy*& input : m_inputs) {
    PortProxy* const port = input;
    input = nullptr;
    delete port;
  }
  for (Port*& output : m_outputs) {
    Port* const port = output;
    if (port == nullptr) continue;
    output = nullptr;
    if (PortData* portData = dynamic_cast<PortData*>(port)) {
      const boost::shared_ptr<DataObject> data = portData->getData();
      if (data && data->getGenerator() == this) data->setGenerator(nullptr);
    }
    delete port;
  }
  for (Parameter* parameter : m_parameters) delete parameter;
  // Frames further up the stack that still work on this operator stop when they resume.
  internal::forgetWalksOf(this);
  internal::Presence::leave(this);
}

bool ProcessObject::isComposite() { return false; }

const std::string& ProcessObject::getName() const { return m_name; }

void ProcessObject::setName(const std::string& name) { m_name = name; }

const ProcessObject* ProcessObject::getParent() const { return m_parent; }

void ProcessObject::setParent(const ProcessObject* parent) { m_parent = parent; }

// ---- ports ----

void ProcessObject::addInput(const std::string& dataType) {
  m_inputs.push_back(new PortProxy(dataType, this));
}

void ProcessObject::addOutput(const std::string& dataType) {
  // The destructor and the generator need a data object behind every output port.
  if (!DataObjectFactory::isValidDataObectType(dataType)) return;
  PortData* port = new PortData(dataType, this);
  port->getData()->setGenerator(this);
  m_outputs.push_back(port);
}

unsigned int ProcessObject::getNumberOfInputPorts() const {
  return static_cast<unsigned int>(m_inputs.size());
}

unsigned int ProcessObject::getNumberOfOutputPorts() const {
  return static_cast<unsigned int>(m_outputs.size());
}

PortProxy* ProcessObject::getInputPort(unsigned int index) {
  return index < m_inputs.size() ? m_inputs[index] : nullptr;
}

const PortProxy* ProcessObject::getInputPort(unsigned int index) const {
  return index < m_inputs.size() ? m_inputs[index] : nullptr;
}

Port* ProcessObject::getOutputPort(unsigned int index) {
  return index < m_outputs.size() ? m_outputs[index] : nullptr;
}

const Port* ProcessObject::getOutputPort(unsigned int index) const {
  return index < m_outputs.size() ? m_outputs[index] : nullptr;
}

void ProcessObject::setInputPort(unsigned int index, const Port* port) {
  if (index >= m_inputs.size()) {
    std::cout << "ProcessObject::setInputPort no input port at index " << index << std::endl;
    return;
  }
  // Observers reached by the connection may throw or destroy this operator: the invalidation
  // is still owed, unless there is nobody left to invalidate.
  const internal::Presence present(this);
  internal::FirstFailure failure;
  failure.attempt([&] { m_inputs[index]->connectTo(port); });
  if (!present.gone()) failure.attempt([this] { setToInvalidated(); });
  failure.rethrow();
}

// Index loops here and below: observers notified along the way may add ports. They may also
// throw (every port is still disconnected, then the first exception rethrown) or destroy this
// operator (whose destructor finishes the job).
void ProcessObject::disconnectAllInputPorts() {
  const internal::Presence present(this);
  internal::FirstFailure failure;
  for (std::size_t i = 0; !present.gone() && i < m_inputs.size(); ++i) {
    if (PortProxy* input = m_inputs[i]) failure.attempt([input] { input->disconnect(); });
  }
  failure.rethrow();
}

void ProcessObject::disconnectAllOutputPorts() {
  const internal::Presence present(this);
  internal::FirstFailure failure;
  for (std::size_t i = 0; !present.gone() && i < m_outputs.size(); ++i) {
    if (PortProxy* proxy = dynamic_cast<PortProxy*>(m_outputs[i])) {
      failure.attempt([proxy] { proxy->disconnect(); });
    }
    if (present.gone() || i >= m_outputs.size() || m_outputs[i] == nullptr) continue;
    const Port* const output = m_outputs[i];
    failure.attempt([output] { output->disconnectAttachedProxies(); });
  }
  failure.rethrow();
}

void ProcessObject::disconnectAllPorts() {
  disconnectAllInputPorts();
  disconnectAllOutputPorts();
}

// ---- observers ----

void ProcessObject::attachObserver(IObserver* observer) { m_observers.insert(observer); }

void ProcessObject::detachObserver(IObserver* observer) { m_observers.erase(observer); }

namespace {

// Notifies each observer of `op` in address order; stops if an observer destroys `op`.
template <class Notify>
void notifyObservers(const ProcessObject* op, const std::set<IObserver*>& observers,
                     Notify notify) {
  // Most operators have no observers: then nobody can destroy `op` meanwhile either, and the
  // thread-local bookkeeping below is skipped.
  if (observers.empty()) return;
  const internal::Presence present(op);
  internal::visitInOrder(observers, notify, [&present] { return present.gone(); });
}

}  // namespace

void ProcessObject::fireOnDataHasBeenGenerated() {
  notifyObservers(this, m_observers, [this](IObserver* o) { o->onDataHasBeenGenerated(this); });
}

void ProcessObject::fireOnStartComputingData() {
  notifyObservers(this, m_observers, [this](IObserver* o) { o->onStartComputingData(this); });
}

// An invalidation has happened whatever an observer does: all of them hear of it.
void ProcessObject::fireOnInvalidated() {
  internal::FirstFailure failure;
  notifyObservers(this, m_observers, [this, &failure](IObserver* o) {
    failure.attempt([this, o] { o->onInvalidated(this); });
  });
  failure.rethrow();
}

void ProcessObject::fireOnValidated() {
  notifyObservers(this, m_observers, [this](IObserver* o) { o->onValidated(this); });
}

void ProcessObject::fireOnParameterHasBeenChanged() {
  notifyObservers(this, m_observers, [this](IObserver* o) { o->onParameterHasBeenChanged(this); });
}

void ProcessObject::notifyDataHasBeenGenerated() { fireOnDataHasBeenGenerated(); }

// ---- invalidation ----

bool ProcessObject::isInvalidated() { return m_invalidated; }

void ProcessObject::setToValidated() {
  m_invalidated = false;
  fireOnValidated();
}

void ProcessObject::setToInvalidated() {
  if (!Repercussion::isEnable()) return;
  internal::InvalidationScope scope(this);
  m_invalidated = true;
  scope.attempt([this] { fireOnInvalidated(); });
  scope.walkReaders(internal::Readers::OfOutputs);
}

void ProcessObject::invalidateReadersOf(const Port* output) {
  internal::invalidateReadersOfPort(this, output);
}

// ---- the invalidation walk (see core/InvalidationWalk.hpp) ----

namespace internal {
namespace {

// Nested invalidations that recurse as they always did; deeper ones queue their steps.
constexpr std::size_t kDirectDepth = 1000;
// Stack kept for the observers of an invalidation, below which it queues its steps too.
constexpr std::size_t kInvalidationReserve = 64 * 1024;

// A step of a walk: invalidating an operator (through its own setToInvalidated, or through
// ProcessObject's for the pipeline an inner operator leaves through), or resuming an operator's
// walk at a port, after a reader.
struct WalkStep {
  enum class Kind : unsigned char { Invalidate, InvalidateAsOperator, Resume };
  Kind kind = Kind::Invalidate;
  Readers readers = Readers::OfOutputs;
  ProcessObject* op = nullptr;  // null: nothing to do (or the operator was destroyed)
  std::size_t port = 0;
  PortProxy* after = nullptr;
  bool composite = false;
};

// What the walks keep per thread beyond ThreadState's counters; touched only when a walk queues
// its steps or a composite walks its inputs' readers.
// An operator whose readers a walk goes through in its own loop (see invalidateInLine).
struct InLineFrame {
  ProcessObject* op;
  Readers readers;
  std::size_t port;
  PortProxy* after;
  bool gone;  // destroyed meanwhile
};

struct WalkLists {
  // The operators walked in line, the innermost last; each walk owns those above its base. Its
  // size is ThreadState::inLine.
  std::vector<InLineFrame> inLine;
  std::vector<WalkStep> queue;  // queued steps, the next one last; its size is ThreadState::queued
  // For each composite walking the readers of its inputs, ThreadState::marked when each of its
  // unfinished walks began, the innermost last.
  std::unordered_map<const ProcessObject*, std::vector<std::size_t>> compositeWalks;
};

WalkLists& lists() {
  static thread_local WalkLists walks;
  return walks;
}

bool isOutputOf(const ProcessObject* op, const Port* port) {
  for (unsigned int i = 0; i < op->getNumberOfOutputPorts(); ++i) {
    if (op->getOutputPort(i) == port) return true;
  }
  return false;
}

// What the walk of `walker` does with the operator of `reader`.
WalkStep stepFor(const ProcessObject* walker, Readers readers, PortProxy* reader) {
  WalkStep step;
  ProcessObject* const op = reader->getParent();
  if (op == nullptr) return step;
  step.composite = op->isComposite();
  if (step.composite) {
    if (readers == Readers::OfOutputs) {
      // Leaving our own pipeline through one of its outputs: mark the pipeline itself and go
      // on downstream of it, rather than back into the operators behind its inputs.
      step.op = op;
      if (op == walker->getParent()) step.kind = WalkStep::Kind::InvalidateAsOperator;
    } else if (op != walker && op != walker->getParent()) {
      step.op = op;
    } else if (op == walker && isOutputOf(op, reader)) {
      // A pipeline whose output reads its own input: the input's change leaves the pipeline
      // there, as an inner operator's change does.
      step.op = op;
      step.kind = WalkStep::Kind::InvalidateAsOperator;
    }
  } else if (!op->isInvalidated()) {
    step.op = op;
  }
  return step;
}

void runStep(const WalkStep& step, ThreadState& thread) {
  if (step.kind == WalkStep::Kind::Resume) {
    InvalidationScope scope(step.op, true);
    scope.walkReaders(step.readers, step.port, step.after);
    return;
  }
  thread.invoked = step.op;
  if (step.kind == WalkStep::Kind::InvalidateAsOperator) {
    step.op->ProcessObject::setToInvalidated();
  } else {
    step.op->setToInvalidated();
  }
}

// Runs the queued steps above `mark`, last queued first; each may queue more.
void runQueue(std::size_t mark, FirstFailure& failure, ThreadState& thread) {
  std::vector<WalkStep>& queue = lists().queue;
  while (queue.size() > mark) {
    const WalkStep step = queue.back();
    queue.pop_back();
    thread.queued = queue.size();
    if (step.op != nullptr) failure.attempt([&] { runStep(step, thread); });
    thread.invoked = nullptr;
  }
}

void enqueue(const WalkStep& step, ThreadState& thread) {
  std::vector<WalkStep>& queue = lists().queue;
  queue.push_back(step);
  thread.queued = queue.size();
}

// Whether `op`'s setToInvalidated is ProcessObject's own. Only GCC can answer cheaply (it reads
// the function out of the object's virtual table); elsewhere every operator is called.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpmf-conversions"
#pragma GCC diagnostic ignored "-Wpedantic"
using Invalidation = void (*)(ProcessObject*);

Invalidation invalidationOf(ProcessObject* op) {
  return reinterpret_cast<Invalidation>(op->*(&ProcessObject::setToInvalidated));
}
#pragma GCC diagnostic pop

bool invalidatesAsProcessObject(ProcessObject* op) {
  // An operator that overrides nothing, built in place and never destroyed (its destructor
  // would print), whose table holds ProcessObject's own function.
  struct Plain final : ProcessObject {
    void generateData() override {}
  };
  alignas(Plain) static unsigned char storage[sizeof(Plain)];
  static const Invalidation base = invalidationOf(new (storage) Plain);
  return invalidationOf(op) == base;
}
#else
bool invalidatesAsProcessObject(ProcessObject*) { return false; }
#endif

// A walk's step taken at once; what it queued runs before the walk goes on.
void runNow(const WalkStep& step, FirstFailure& failure, ThreadState& thread) {
  const std::size_t mark = thread.queued;
  failure.attempt([&] { runStep(step, thread); });
  thread.invoked = nullptr;
  if (thread.queued > mark) runQueue(mark, failure, thread);
}

// The first reader of `port` above `after` (from the first when `after` is null), or null.
PortProxy* readerAfter(const Port* port, PortProxy* after) {
  const std::set<PortProxy*>& readers = port->getAttachedProxies();
  const auto next = after == nullptr ? readers.begin() : readers.upper_bound(after);
  return next == readers.end() ? nullptr : *next;
}

std::size_t portCount(const ProcessObject* op, Readers readers) {
  return readers == Readers::OfOutputs ? op->getNumberOfOutputPorts() : op->getNumberOfInputPorts();
}

const Port* walkedPort(const ProcessObject* op, Readers readers, std::size_t index) {
  const auto i = static_cast<unsigned int>(index);
  if (readers == Readers::OfOutputs) return op->getOutputPort(i);
  return op->getInputPort(i);
}

}  // namespace

InvalidationScope::InvalidationScope(ProcessObject* op, bool resumed)
    : m_op(op),
      m_thread(threadState()),
      m_presence(op, m_thread),
      m_mark(m_thread.queued),
      m_resumed(resumed),
      m_asked(!resumed && m_thread.invoked != op),
      m_deferring(false),
      m_inLineBase(m_thread.inLine) {
  if (m_thread.invoked == op) m_thread.invoked = nullptr;
  ++m_thread.walkDepth;
  m_deferring = m_thread.walkDepth > kDirectDepth || stackIsLow(kInvalidationReserve, m_thread);
}

InvalidationScope::~InvalidationScope() {
  --m_thread.walkDepth;
  if (m_thread.inLine > m_inLineBase) {  // left by an exception
    lists().inLine.resize(m_inLineBase);
    m_thread.inLine = m_inLineBase;
  }
}

void InvalidationScope::walkReaders(Readers readers, std::size_t port, PortProxy* after) {
  const bool composite = readers == Readers::OfInputs;
  if (!composite && !m_resumed && !m_presence.gone() && !m_op->isComposite()) ++m_thread.marked;
  const bool walk = !composite || m_resumed || beginCompositeWalk();
  if (walk && !walkFrom(readers, port, after) && composite) endCompositeWalk();
  if (m_asked && m_thread.queued > m_mark) runQueue(m_mark, m_failure, m_thread);
  m_failure.rethrow();
}

// Whether the walk goes on to its end here rather than queueing its rest. The operator walked is
// this scope's own, or the innermost one marked in line.
bool InvalidationScope::walkFrom(Readers readers, std::size_t port, PortProxy* after) {
  InLineFrame own{m_op, readers, port, after, false};
  std::vector<InLineFrame>* inLine = nullptr;  // fetched once an operator is walked in line
  for (;;) {
    const bool nested = m_thread.inLine > m_inLineBase;
    InLineFrame& frame = nested ? inLine->back() : own;
    // Port and reader are looked up again after every step: observers may add or remove either.
    const bool gone = nested ? frame.gone : m_presence.gone();
    if (gone || frame.port >= portCount(frame.op, frame.readers)) {
      if (!nested) return false;
      inLine->pop_back();
      --m_thread.inLine;
      continue;
    }
    const Port* const walked = walkedPort(frame.op, frame.readers, frame.port);
    PortProxy* const reader = walked == nullptr ? nullptr : readerAfter(walked, frame.after);
    if (reader == nullptr) {
      ++frame.port;
      frame.after = nullptr;
      continue;
    }
    frame.after = reader;
    WalkStep step;
    m_failure.attempt([&] { step = stepFor(frame.op, frame.readers, reader); });
    if (step.op == nullptr) continue;
    if (m_deferring) {  // never with operators in line: they are walked only when not deferring
      enqueue(WalkStep{WalkStep::Kind::Resume, readers, m_op, own.port, own.after}, m_thread);
      enqueue(step, m_thread);
      return true;
    }
    const bool plain = step.kind == WalkStep::Kind::Invalidate && !step.composite;
    if (!plain || !canInvalidateInLine(step.op)) {
      runNow(step, m_failure, m_thread);
    } else if (Repercussion::isEnable()) {  // otherwise its own call would do nothing either
      step.op->m_invalidated = true;
      ++m_thread.marked;
      if (inLine == nullptr) inLine = &lists().inLine;
      inLine->push_back(InLineFrame{step.op, Readers::OfOutputs, 0, nullptr, false});
      ++m_thread.inLine;
    }
  }
}

// Whether what ProcessObject::setToInvalidated would do for `op` can be done by the walk that
// reaches it, its readers walked next in that walk's own loop: when nothing of the call could be
// told apart, with no observer to notify and no override to run.
bool InvalidationScope::canInvalidateInLine(ProcessObject* op) const {
  return !m_deferring && op->m_observers.empty() && invalidatesAsProcessObject(op);
}

// Composites invalidate composite readers whatever their state, so input ports wired across
// pipelines, or pipelines passing an input straight to an output, can lead a composite's walk
// back to the composite. Walking it again makes progress only if a non-composite operator was
// marked since its walk began (there are finitely many; a pipeline can be marked as an operator
// again and again); otherwise the walk would repeat itself without end, and is not started.
bool InvalidationScope::beginCompositeWalk() {
  std::vector<std::size_t>& starts = lists().compositeWalks[m_op];
  if (!starts.empty() && starts.back() == m_thread.marked) return false;
  starts.push_back(m_thread.marked);
  ++m_thread.compositeWalks;
  return true;
}

void InvalidationScope::endCompositeWalk() {
  if (m_presence.gone()) return;  // forgetWalksOf has dropped its entry
  auto& walks = lists().compositeWalks;
  const auto entry = walks.find(m_op);
  if (entry == walks.end()) return;
  entry->second.pop_back();
  --m_thread.compositeWalks;
  if (entry->second.empty()) walks.erase(entry);
}

void invalidateReadersOfPort(ProcessObject* owner, const Port* output) {
  ThreadState& thread = threadState();
  const Presence ownerPresent(owner, thread), portPresent(output, thread);
  FirstFailure failure;
  for (PortProxy* reader = readerAfter(output, nullptr); reader != nullptr;
       reader = readerAfter(output, reader)) {
    WalkStep step;
    failure.attempt([&] { step = stepFor(owner, Readers::OfOutputs, reader); });
    if (step.op != nullptr) runNow(step, failure, thread);
    if (ownerPresent.gone() || portPresent.gone()) break;
  }
  failure.rethrow();
}

void forgetWalksOf(const ProcessObject* op) {
  ThreadState& thread = threadState();
  if (thread.inLine > 0) {
    for (InLineFrame& frame : lists().inLine) {
      if (frame.op == op) frame.gone = true;
    }
  }
  if (thread.queued == 0 && thread.compositeWalks == 0) return;
  WalkLists& walks = lists();
  for (WalkStep& step : walks.queue) {
    if (step.op == op) step.op = nullptr;
  }
  const auto entry = walks.compositeWalks.find(op);
  if (entry == walks.compositeWalks.end()) return;
  thread.compositeWalks -= entry->second.size();
  walks.compositeWalks.erase(entry);
}

}  // namespace internal

// ---- parameters ----

void ProcessObject::addParameter(Parameter* parameter) { m_parameters.push_back(parameter); }

std::vector<Parameter*>& ProcessObject::getParameters() { return m_parameters; }

std::vector<const Parameter*> ProcessObject::getParameters() const {
  return std::vector<const Parameter*>(m_parameters.begin(), m_parameters.end());
}

const std::string& ProcessObject::getParameterValue(const std::string& idName) {
  for (const Parameter* parameter : m_parameters) {
    if (parameter != nullptr && parameter->sameIDName(idName)) return parameter->getValue();
  }
  return Parameter::NoValueForIDName;
}

bool ProcessObject::setParameterValue(const std::string& idName, const std::string& value) {
  for (Parameter* parameter : m_parameters) {
    if (parameter != nullptr && parameter->sameIDName(idName)) {
      parameter->setValue(value);
      setToInvalidated();
      return true;
    }
  }
  return false;
}

// ---- printing ----

void ProcessObject::print() const {
  const char* const rule = "-------------------------------";
  std::cout << rule << std::endl;
  std::cout << "Operator : addr " << static_cast<const void*>(this) << "   " << m_name << std::endl;
  std::cout << " Invalidated = " << m_invalidated << std::endl;
  std::cout << " Parent     = " << static_cast<const void*>(m_parent) << std::endl;
  std::cout << rule << std::endl;
  // The labels carry the single byte 0xB0 after the letter n.
  std::cout << "--------------------- Input Ports ---------------" << std::endl;
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    std::cout << "Input Port n\xB0" << i << " ";
    m_inputs[i]->print();
    std::cout << std::endl;
  }
  std::cout << "--------------------- Output Ports ---------------" << std::endl;
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    std::cout << "Output Port n\xB0" << i << " ";
    m_outputs[i]->print();
    std::cout << std::endl;
  }
  std::cout << "---------------------  Parameters ---------------" << std::endl;
  for (std::size_t i = 0; i < m_parameters.size(); ++i) {
    std::cout << "Paramter n\xB0" << i << " ";
    if (m_parameters[i] != nullptr) m_parameters[i]->print();
    std::cout << std::endl;
  }
  std::cout << rule << std::endl;
}

}  // namespace vorn

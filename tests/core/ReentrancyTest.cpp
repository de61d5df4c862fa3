// Observers that change the graph from inside each of the five notifications: they update,
// invalidate, rewire, disconnect, detach or destroy operators, or throw. Nothing may crash or
// leak (the sanitizer build checks both), and the graph keeps its invariants afterwards.
#include <gtest/gtest.h>

#include <ios>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "CoutCapture.hpp"
#include "CoutDiscard.hpp"
#include "TestOperators.hpp"
#include "vorn/BasePipeline.hpp"
#include "vorn/DataObject.hpp"

namespace {

using vorn::ProcessObject;

// The operators and pipelines of a test, while they live.
std::set<ProcessObject*>& living() {
  static std::set<ProcessObject*> ops;
  return ops;
}

struct Op : LoggingOperator {
  Op(const std::string& name, EventLog* log, unsigned inputs = 1)
      : LoggingOperator(name, log, inputs, 1) {
    living().insert(this);
  }
  ~Op() override { living().erase(this); }
};

struct Pipeline : vorn::BasePipeline {
  Pipeline() { living().insert(this); }
  ~Pipeline() override { living().erase(this); }
};

std::vector<const vorn::Port*> portsOf(ProcessObject* op) {
  std::vector<const vorn::Port*> ports;
  for (unsigned i = 0; i < op->getNumberOfInputPorts(); ++i) ports.push_back(op->getInputPort(i));
  for (unsigned i = 0; i < op->getNumberOfOutputPorts(); ++i) ports.push_back(op->getOutputPort(i));
  return ports;
}

// Connections registered on both sides, between living ports only.
std::string brokenConnection(ProcessObject* op, const std::set<const vorn::Port*>& alive) {
  for (const vorn::Port* port : portsOf(op)) {
    const vorn::Port* to = vorn::PortProxy::getConnection(port);
    if (to != nullptr && alive.count(to) == 0) return "an input reads a destroyed port";
    if (to != nullptr && to->getAttachedProxies().count(
                             static_cast<vorn::PortProxy*>(const_cast<vorn::Port*>(port))) == 0)
      return "an input is missing from its port's readers";
    for (vorn::PortProxy* reader : port->getAttachedProxies()) {
      if (alive.count(reader) == 0) return "a destroyed reader is still registered";
      if (!reader->isConnectedTo(port)) return "a reader is registered but not connected";
    }
  }
  return {};
}

// Parents and pipelines' lists agree; no update left marked; a validated operator reads
// up-to-date data only.
std::string brokenState(ProcessObject* op) {
  const auto* parent = dynamic_cast<const vorn::BasePipeline*>(op->getParent());
  if (op->getParent() != nullptr && (parent == nullptr || !parent->isContainingProcessObject(op)))
    return "its parent does not list it";
  if (const auto* pipeline = dynamic_cast<const vorn::BasePipeline*>(op)) {
    for (const ProcessObject* inner : pipeline->getOperators()) {
      if (inner->getParent() != pipeline) return "an operator it lists has another parent";
    }
  }
  if (op->isUpdating()) return "still marked as updating";
  if (op->isComposite() || op->isInvalidated()) return {};
  for (unsigned i = 0; i < op->getNumberOfInputPorts(); ++i) {
    const boost::shared_ptr<vorn::DataObject> data = op->getInputPort(i)->getData();
    if (!data || !data->isUptodate()) return "validated but reads stale or no data";
  }
  return {};
}

// The first broken invariant, in words, or empty.
std::string brokenInvariant() {
  std::set<const vorn::Port*> alive;
  for (ProcessObject* op : living()) {
    for (const vorn::Port* port : portsOf(op)) alive.insert(port);
  }
  for (ProcessObject* op : living()) {
    for (const std::string& broken : {brokenConnection(op, alive), brokenState(op)}) {
      if (!broken.empty()) return op->getName() + ": " + broken;
    }
  }
  return {};
}

enum class Action { Update, Invalidate, Rewire, Disconnect, Detach, Destroy, Throw };
// A is upstream of the notifier B, C inside the pipeline P, D at the tail.
enum class Target { Upstream, Notifier, Inner, Pipeline, Tail };
const char* const kActionNames[] = {"Update", "Invalidate", "Rewire", "Disconnect",
                                    "Detach", "Destroy",    "Throw"};
const char* const kTargetNames[] = {"Upstream", "Notifier", "Inner", "Pipeline", "Tail"};

// S -> A -> B -> P{ C } -> D, and a spare source S2. B fires onParameterHasBeenChanged from its
// computation; every operator is recorded, and the test keeps every output's data.
class Graph {
 public:
  Graph() {
    b->action = [this] { b->fireOnParameterHasBeenChanged(); };
    connect(*s, *a);
    connect(*a, *b);
    p->registerOperator(c);
    p->addInput("ImageObject");
    p->addOutput("ImageObject");
    c->setInputPort(0, p->getInputPort(0));
    static_cast<vorn::PortProxy*>(p->getOutputPort(0))->connectTo(c->getOutputPort(0));
    p->setInputPort(0, b->getOutputPort(0));
    d->setInputPort(0, p->getOutputPort(0));
    for (ProcessObject* op : living()) op->attachObserver(&recorder);
    for (Op* op : {s.get(), a.get(), b.get(), c.get(), d.get()}) {
      kept.emplace_back(op->getOutputPort(0)->getData(), op);
    }
  }
  ~Graph() {
    if (p && c) p->unRegisterOperator(c);
  }

  ProcessObject* target(Target which) {
    const std::vector<ProcessObject*> ops{a.get(), b.get(), c.get(), p.get(), d.get()};
    return ops[static_cast<std::size_t>(which)];
  }

  void act(Action action, Target which) {
    ProcessObject* const op = target(which);
    switch (action) {
      case Action::Update:
        return op->update();
      case Action::Invalidate:
        return op->setToInvalidated();
      case Action::Rewire:
        return op->setInputPort(0, s2->getOutputPort(0));
      case Action::Disconnect:
        return op->disconnectAllPorts();
      case Action::Detach:
        return op->detachObserver(&recorder);
      case Action::Destroy:
        return destroy(which);
      case Action::Throw:
        throw std::runtime_error("observer failed");
    }
  }

  // Data the test kept names its generator while it lives, and nobody once it is destroyed.
  bool keptDataIsSound() const {
    for (const auto& entry : kept) {
      const bool alive = living().count(entry.second) != 0;
      if (entry.first->getGenerator() != (alive ? entry.second : nullptr)) return false;
    }
    return true;
  }

  EventLog log;
  RecordingObserver recorder{&log};
  std::unique_ptr<Op> s = std::make_unique<Op>("S", &log, 0),
                      s2 = std::make_unique<Op>("S2", &log, 0), a = std::make_unique<Op>("A", &log),
                      b = std::make_unique<Op>("B", &log), d = std::make_unique<Op>("D", &log);
  boost::shared_ptr<Op> c{new Op("C", &log)};
  std::unique_ptr<Pipeline> p = std::make_unique<Pipeline>();
  std::vector<std::pair<boost::shared_ptr<vorn::DataObject>, ProcessObject*>> kept;

 private:
  void destroy(Target which) {
    if (which == Target::Upstream) a.reset();
    if (which == Target::Notifier) b.reset();
    if (which == Target::Pipeline) p.reset();
    if (which == Target::Tail) d.reset();
    if (which != Target::Inner) return;
    if (p) p->unRegisterOperator(c);
    c.reset();
  }
};

// What the trigger ends with: no exception (empty), or the beginning of its what().
std::string expectedFailure(const std::string& event, Action action, Target target) {
  if (action == Action::Throw) {
    return event == "parameter" ? "Operator B has caught an exception\nobserver failed"
                                : "observer failed";
  }
  // The updates of D, then C, then B are under way when B notifies during an update; that of B
  // is over by onValidated.
  const bool underWay = target == Target::Inner || target == Target::Tail ||
                        (target == Target::Notifier && event != "validated");
  if (action == Action::Destroy && event != "invalidated" && underWay)
    return "vorn::ProcessObject::update()\nThe operator being updated was destroyed during its "
           "update : processings cannot be performed\n";
  return {};
}

using Case = std::tuple<std::string, Action, Target>;

class ReentrancyTest : public ::testing::TestWithParam<Case> {
 protected:
  ~ReentrancyTest() override { EXPECT_TRUE(living().empty()); }
  CoutDiscard silence;
};

// Tests one action taken inside one notification of B: the outcome of the trigger (updating D;
// for onInvalidated, invalidating S), the invariants, and again once D, if there, is updated
// (recomputing whatever went stale, such as an upstream invalidated during a computation).
TEST_P(ReentrancyTest, ObserverChangesTheGraph) {
  const std::string event = std::get<0>(GetParam());
  const Action action = std::get<1>(GetParam());
  const Target target = std::get<2>(GetParam());
  Graph graph;
  bool done = false;
  HookObserver observer([&](const std::string& notified, ProcessObject*) {
    if (notified != event || done) return;
    done = true;
    graph.act(action, target);
  });
  if (event == "invalidated") graph.d->update();
  graph.b->attachObserver(&observer);

  ProcessObject* const tail = graph.d.get();
  std::string failure;
  try {
    event == "invalidated" ? graph.s->setToInvalidated() : tail->update();
  } catch (const std::exception& e) {
    failure = e.what();
  }
  EXPECT_TRUE(done);
  if (graph.b) graph.b->detachObserver(&observer);
  const std::string expected = expectedFailure(event, action, target);
  EXPECT_EQ(expected, failure.substr(0, expected.size()));
  EXPECT_EQ(expected.empty(), failure.empty()) << failure;
  EXPECT_EQ("", brokenInvariant());
  EXPECT_TRUE(graph.keptDataIsSound());

  if (graph.d && thrownBy<std::ios_base::failure>([&] { graph.d->update(); }) == "nothing thrown") {
    EXPECT_FALSE(graph.d->isInvalidated());  // nothing left stale on the way (else: no input)
  }
  EXPECT_EQ("", brokenInvariant());
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return std::get<0>(info.param) + kActionNames[static_cast<int>(std::get<1>(info.param))] +
         kTargetNames[static_cast<int>(std::get<2>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(
    AllEvents, ReentrancyTest,
    ::testing::Combine(
        ::testing::Values("start", "generated", "invalidated", "validated", "parameter"),
        ::testing::Values(Action::Update, Action::Invalidate, Action::Rewire, Action::Disconnect,
                          Action::Detach, Action::Destroy, Action::Throw),
        ::testing::Values(Target::Upstream, Target::Notifier, Target::Inner, Target::Pipeline,
                          Target::Tail)),
    caseName);

// The behaviours the table relies on, spelled out.
class ReentrancyCases : public ::testing::Test {
 protected:
  CoutDiscard silence;
  EventLog log;
  // Records onInvalidated, then throws.
  HookObserver throwing{[this](const std::string& event, ProcessObject* op) {
    if (event != "invalidated") return;
    log.push_back("invalidated:" + op->getName());
    throw std::runtime_error("observer failed on " + op->getName());
  }};
};

// Returns an observer that destroys `*owner` on `event`.
template <class Owner>
HookObserver destroying(Owner* owner, const char* event = "invalidated") {
  return HookObserver([owner, event](const std::string& notified, ProcessObject*) {
    if (notified == event) owner->reset();
  });
}

// Tests an observer throwing from onInvalidated: the other observers and the walk go on, the
// exception comes out at the end; connecting completes first; a destructor drops it.
TEST_F(ReentrancyCases, ThrowingFromOnInvalidated) {
  LoggingOperator a("A", &log), b("B", &log), c("C", &log);
  connect(a, b);
  connect(b, c);
  RecordingObserver recorder(&log), second(&log);
  for (LoggingOperator* op : {&a, &b, &c}) op->setToValidated();
  b.attachObserver(&throwing);
  b.attachObserver(&second);
  c.attachObserver(&recorder);
  log.clear();
  EXPECT_EQ("observer failed on B", thrownBy<std::runtime_error>([&] { a.setToInvalidated(); }));
  EXPECT_EQ(3u, log.size());
  EXPECT_EQ("invalidated:C", log.back());

  auto source = std::make_unique<LoggingOperator>("S", &log, 0, 1);
  EXPECT_THROW(b.setInputPort(0, source->getOutputPort(0)), std::runtime_error);
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(source->getOutputPort(0)));
  EXPECT_EQ(0u, a.getOutputPort(0)->getNumberOfUse());
  b.setToValidated();
  source.reset();
  EXPECT_TRUE(b.isInvalidated());
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
}

// Tests operators destroyed by others' observers during their own walks: a connection to them
// is not made; their notification and invalidation stop; disconnecting their readers stops.
TEST_F(ReentrancyCases, DestroyedDuringTheirOwnWalks) {
  LoggingOperator b("B", &log), c("C", &log);
  auto a = std::make_unique<LoggingOperator>("A", &log, 0, 1);
  HookObserver destroyA = destroying(&a);
  b.attachObserver(&destroyA);
  b.getInputPort(0)->connectTo(a->getOutputPort(0));
  EXPECT_EQ(nullptr, a);
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));

  // A's first observer invalidates B, whose observer destroys A: A's second observer is skipped.
  a = std::make_unique<LoggingOperator>("A", &log, 0, 1);
  HookObserver pair[2] = {
      HookObserver([&](const std::string&, ProcessObject*) { b.setToInvalidated(); }),
      HookObserver([&](const std::string& event, ProcessObject*) { log.push_back(event + ":A"); })};
  a->attachObserver(&pair[0]);
  a->attachObserver(&pair[1]);
  ProcessObject* raw = a.get();
  raw->setToInvalidated();
  EXPECT_EQ(nullptr, a);
  EXPECT_TRUE(log.empty());

  b.detachObserver(&destroyA);
  a = std::make_unique<LoggingOperator>("A", &log, 0, 1);
  connect(*a, b);
  connect(*a, c);
  c.attachObserver(&destroyA);
  raw = a.get();
  raw->disconnectAllOutputPorts();
  EXPECT_EQ(nullptr, a);
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_TRUE(c.getInputPort(0)->isConnectedTo(nullptr));

  auto pipeline = std::make_unique<Pipeline>();
  pipeline->addOutput("ImageObject");
  LoggingOperator source("S", &log, 0, 1);
  static_cast<vorn::PortProxy*>(pipeline->getOutputPort(0))->connectTo(source.getOutputPort(0));
  b.setInputPort(0, pipeline->getOutputPort(0));
  HookObserver destroyPipeline = destroying(&pipeline);
  b.attachObserver(&destroyPipeline);
  raw = pipeline.get();
  raw->disconnectAllOutputPorts();
  EXPECT_EQ(nullptr, pipeline);
  EXPECT_TRUE(b.getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_EQ(0u, source.getOutputPort(0)->getNumberOfUse());

  // An operator nobody listens to is walked by the walk that reaches it, not by a call of its
  // own: destroyed by its reader's observer, it is not walked any further either.
  LoggingOperator head("H", &log, 0, 1), last("L", &log), other("O", &log);
  auto middle = std::make_unique<LoggingOperator>("M", &log);
  connect(head, *middle);
  connect(*middle, last);
  connect(*middle, other);
  for (LoggingOperator* op : {&head, middle.get(), &last, &other}) op->setToValidated();
  HookObserver destroyMiddle = destroying(&middle);
  last.attachObserver(&destroyMiddle);
  head.setToInvalidated();
  EXPECT_EQ(nullptr, middle);
  EXPECT_TRUE(last.isInvalidated());
  EXPECT_TRUE(other.isInvalidated());
  EXPECT_EQ(0u, head.getOutputPort(0)->getNumberOfUse());
}

}  // namespace

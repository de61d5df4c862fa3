// GraphOperations: random steps on a small graph of operators and nested pipelines, and the
// invariants that hold after each, checked through the public API. Shared by the stress test
// and the operations fuzz target. A well-formed world wires only what a client following the
// pipeline rules would (an input reads a port of its own scope; operators change pipelines only
// once disconnected), and there a validated operator must read up-to-date data; a wild world
// wires anything the API accepts. The repercussion switch is process-wide: World turns it back
// on when destroyed. Callers silence std::cout.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <ios>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "vorn/BasePipeline.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/IObserver.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/MaskRoi.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace graphops {

// Where the random choices come from: a seeded generator, or the fuzzer's bytes, one per choice
// (once they run out every choice is 0 and exhausted() is true).
class Chooser {
 public:
  explicit Chooser(std::uint32_t seed) : m_engine(seed) {}
  Chooser(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
  // A number below `count`, 0 when it is 0 or 1; a plain modulo, as the distributions of
  // <random> differ between standard libraries.
  unsigned below(unsigned count) {
    if (count <= 1) return 0;
    if (m_data == nullptr) return static_cast<unsigned>(m_engine() % count);
    m_exhausted = m_exhausted || m_position >= m_size;
    return m_exhausted ? 0 : m_data[m_position++] % count;
  }
  bool percent(unsigned chance) { return below(100) < chance; }
  bool exhausted() const { return m_exhausted; }

 private:
  std::mt19937 m_engine;
  const std::uint8_t* m_data = nullptr;
  std::size_t m_size = 0, m_position = 0;
  bool m_exhausted = false;
};

// Reads its inputs' pixels and writes `size` pixels on each output, or throws when `fail` is 1.
class StressOperator : public vorn::ProcessObject {
 public:
  StressOperator(const std::string& name, unsigned inputs, unsigned outputs) {
    setName(name);
    for (unsigned i = 0; i < inputs; ++i) addInput("ImageObject");
    for (unsigned i = 0; i < outputs; ++i) addOutput("ImageObject");
    addParameter(new vorn::Parameter("size", "4"));
    addParameter(new vorn::Parameter("fail", "0"));
  }

  void generateData() override {
    if (getParameterValue("fail") == "1") throw std::runtime_error("asked to fail");
    unsigned sum = 0;
    for (unsigned i = 0; getInputPort(i) != nullptr; ++i) {
      const auto image = boost::dynamic_pointer_cast<vorn::ImageObject>(getInputPort(i)->getData());
      if (!image || image->getBuffer() == nullptr) continue;
      const auto* bytes = static_cast<const unsigned char*>(image->getBuffer());
      const auto count = image->getPixelNumber() * vorn::getSizeOf(image->getPointType());
      for (unsigned long b = 0; b < count; ++b) sum += bytes[b];
    }
    for (unsigned o = 0; getOutputPort(o) != nullptr; ++o) write(o, sum);
  }

 private:
  void write(unsigned output, unsigned sum) {
    const auto image =
        boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(output)->getData());
    if (!image) return;
    // The region a computation is asked for must be readable whatever it is.
    if (image->m_regionOfInterest) (void)image->m_regionOfInterest->getBoundingBox().volume();
    vorn::Box box(1);
    box.m_size[0] = std::stoul(getParameterValue("size"));
    image->Allocate(vorn::PixelType::UCHAR, box);
    if (box.m_size[0] > 0) std::memset(image->getBuffer(), sum & 0xff, box.m_size[0]);
  }
};

// When armed, changes the observers of the operator that notifies it next, once.
class StressObserver : public vorn::IObserver {
 public:
  enum class Plan { None, DetachSelf, AttachOther, DetachOther };
  void arm(Plan plan, StressObserver* other) { m_plan = plan, m_other = other; }
  void onDataHasBeenGenerated(vorn::ProcessObject* op) override { react(op); }
  void onStartComputingData(vorn::ProcessObject* op) override { react(op); }
  void onInvalidated(vorn::ProcessObject* op) override { react(op); }
  void onValidated(vorn::ProcessObject* op) override { react(op); }
  void onParameterHasBeenChanged(vorn::ProcessObject* op) override { react(op); }

 private:
  void react(vorn::ProcessObject* op) {
    const Plan plan = std::exchange(m_plan, Plan::None);
    if (plan == Plan::DetachSelf) op->detachObserver(this);
    if (plan == Plan::AttachOther) op->attachObserver(m_other);
    if (plan == Plan::DetachOther) op->detachObserver(m_other);
  }
  Plan m_plan = Plan::None;
  StressObserver* m_other = nullptr;
};

class World {
 public:
  World(Chooser& chooser, bool wellFormed) : m_chooser(chooser), m_wellFormed(wellFormed) {
    vorn::Repercussion::setEnable(true);
  }
  ~World() {
    m_held.clear();
    for (auto node = m_nodes.rbegin(); node != m_nodes.rend(); ++node) {
      node->held.reset();
      noteDeaths();
    }
    vorn::Repercussion::setEnable(true);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // One random step; what it broke, if anything, is kept for check().
  void step() {
    const std::vector<bool> before = validatedOperators();
    const Step chosen = chooseStep();
    (this->*chosen)();
    noteDeaths();
    if (chosen == &World::update && vorn::Repercussion::isEnable()) return;
    const std::vector<bool> after = validatedOperators();  // only updates validate
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (after[i] && !before[i]) fail(m_nodes[i].name + " became validated without an update");
    }
  }

  // The first broken invariant in words, with the last steps; empty when all hold.
  std::string check() {
    std::string broken = m_violation.empty() ? checkPorts() : m_violation;
    for (int i = 0; broken.empty() && i < count(); ++i) broken = checkNode(i);
    for (const auto& held : m_held) {
      if (broken.empty() && held.first->getGenerator() != lock(held.second).get()) {
        broken = "held data names the wrong generator";
      }
    }
    for (std::size_t i = 0; !broken.empty() && i < m_history.size(); ++i) {
      broken += "\n  after: " + m_history[i];
    }
    return broken;
  }

  // Steps run, by the first word of their description, plus "updated" and "failed".
  const std::map<std::string, unsigned>& tally() const { return m_tally; }

 private:
  struct Node {
    std::string name;
    bool composite;
    boost::shared_ptr<vorn::ProcessObject> held;  // the world's reference; empty once dropped
    boost::weak_ptr<vorn::ProcessObject> alive;
    bool dead;                 // its death is already in the model
    int parent;                // the parent the model expects
    std::vector<int> members;  // the operator list the model expects, for pipelines
  };
  struct PortInfo {
    vorn::Port* port;
    int node;
    bool input;
  };
  using Step = void (World::*)();

  Step chooseStep() {
    // Edits of the wiring dominate; creation keeps the pool from running dry.
    // clang-format off
    const std::pair<unsigned, Step> steps[] = {
        {liveCount() < 4 ? 33u : 9u, &World::create}, {4, &World::drop}, {14, &World::connect},
        {8, &World::setInputPort}, {4, &World::disconnect}, {6, &World::changeParameter},
        {5, &World::requestRegion}, {5, &World::changeObservers}, {5, &World::registerOperator},
        {3, &World::unregisterOperator}, {12, &World::update}, {2, &World::toggleRepercussion},
        {4, &World::holdData}, {5, &World::changePorts}, {5, &World::poke}};
    // clang-format on
    unsigned pick = 0;
    for (const auto& step : steps) pick += step.first;
    pick = m_chooser.below(pick);
    for (const auto& step : steps) {
      if (pick < step.first) return step.second;
      pick -= step.first;
    }
    return &World::update;
  }

  unsigned below(std::size_t count) { return m_chooser.below(static_cast<unsigned>(count)); }
  template <typename T>
  const T& pick(const std::vector<T>& items) {
    return items[below(items.size())];
  }
  int count() const { return static_cast<int>(m_nodes.size()); }
  Node& node(int i) { return m_nodes[static_cast<std::size_t>(i)]; }
  const Node& node(int i) const { return m_nodes[static_cast<std::size_t>(i)]; }
  long liveCount() const {
    return std::count_if(m_nodes.begin(), m_nodes.end(), [](const Node& n) { return !n.dead; });
  }

  // A live node index, or -1; only pipelines when asked.
  int pickNode(bool onlyPipelines = false) {
    std::vector<int> candidates;
    for (int i = 0; i < count(); ++i) {
      if (!node(i).dead && (!onlyPipelines || node(i).composite)) candidates.push_back(i);
    }
    return candidates.empty() ? -1 : pick(candidates);
  }
  boost::shared_ptr<vorn::ProcessObject> lock(int i) const {
    return i < 0 ? nullptr : node(i).alive.lock();
  }
  vorn::BasePipeline* asPipeline(int i) const {
    return dynamic_cast<vorn::BasePipeline*>(lock(i).get());
  }
  int nodeOf(const vorn::ProcessObject* op) const {
    for (int i = 0; i < count(); ++i) {
      if (!node(i).dead && lock(i).get() == op) return i;
    }
    return -1;
  }

  static std::vector<vorn::Port*> portsOf(vorn::ProcessObject& op, bool inputs) {
    std::vector<vorn::Port*> ports;
    for (unsigned i = 0; (inputs ? op.getInputPort(i) : op.getOutputPort(i)) != nullptr; ++i) {
      ports.push_back(inputs ? op.getInputPort(i) : op.getOutputPort(i));
    }
    return ports;
  }

  // Live ports in node order, inputs before outputs: no dependence on addresses.
  std::vector<PortInfo> livePorts() const {
    std::vector<PortInfo> result;
    for (int i = 0; i < count(); ++i) {
      const auto op = lock(i);
      for (int input = 1; op && input >= 0; --input) {
        for (vorn::Port* port : portsOf(*op, input)) result.push_back({port, i, input == 1});
      }
    }
    return result;
  }

  // A port `reader` may read: in a well-formed world one of its scope (outputs of the
  // operators in it, inputs of the scope's pipeline), else any port at all.
  const vorn::Port* pickTarget(const PortInfo& reader) {
    // A pipeline's output reads from inside it; an input from its operator's parent.
    const int scope = !reader.input ? reader.node : nodeOf(lock(reader.node)->getParent());
    std::vector<const vorn::Port*> targets;
    for (const PortInfo& port : livePorts()) {
      const bool visible =
          port.input ? port.node == scope : nodeOf(lock(port.node)->getParent()) == scope;
      if (!m_wellFormed || visible) targets.push_back(port.port);
    }
    return targets.empty() || m_chooser.percent(8) ? nullptr : pick(targets);
  }

  // `changes`: the step edits the graph, which with repercussion off leaves flags stale.
  void record(const std::string& what, const vorn::ProcessObject* op, bool changes = true) {
    ++m_tally[what];
    m_history.push_back(what + " " + (op ? op->getName() : std::string()));
    if (m_history.size() > 12) m_history.pop_front();
    if (changes && !vorn::Repercussion::isEnable()) m_staleFlags = true;
  }

  // ---- steps ----

  void create() {
    if (liveCount() >= 14) return;
    boost::shared_ptr<vorn::ProcessObject> op;
    const std::string suffix = std::to_string(m_nodes.size());
    const long pipelines = std::count_if(m_nodes.begin(), m_nodes.end(),
                                         [](const Node& n) { return !n.dead && n.composite; });
    if (m_chooser.percent(25) && pipelines < 4) {
      auto pipeline = boost::make_shared<vorn::BasePipeline>();
      pipeline->setName("pipe" + suffix);
      for (unsigned i = m_chooser.below(3); i > 0; --i) pipeline->addInput("ImageObject");
      for (unsigned i = m_chooser.below(3); i > 0; --i) pipeline->addOutput("ImageObject");
      op = pipeline;
    } else {
      const unsigned inputs = m_chooser.below(4), outputs = m_chooser.below(3);
      op = boost::make_shared<StressOperator>("op" + suffix, inputs, outputs);
    }
    m_nodes.push_back({op->getName(), op->isComposite(), op, op, false, -1, {}});
    record("create", op.get(), false);
  }

  void drop() {
    const int i = pickNode();
    if (i < 0) return;
    record("drop", lock(i).get());
    node(i).held.reset();
  }

  // Ports that connect to others: every input, and a pipeline's outputs.
  void connect() {
    std::vector<PortInfo> proxies;
    for (const PortInfo& port : livePorts()) {
      if (dynamic_cast<vorn::PortProxy*>(port.port)) proxies.push_back(port);
    }
    if (proxies.empty()) return;
    const PortInfo reader = pick(proxies);
    auto* proxy = static_cast<vorn::PortProxy*>(reader.port);
    const vorn::Port* target = pickTarget(reader);
    record("connect", proxy->getParent());
    proxy->connectTo(target);
    // A refused connection (another data type, a loop of input ports) changes nothing.
    if (proxy->getConnection() == target) expectInvalidated(proxy->getParent(), "connecting");
  }

  void setInputPort() {
    const int i = pickNode();
    const auto op = lock(i);
    if (!op) return;
    const auto inputs = portsOf(*op, true);
    const unsigned index = below(inputs.size() + 1);
    record("setInputPort", op.get());
    op->setInputPort(index, index < inputs.size() ? pickTarget({inputs[index], i, true}) : nullptr);
    if (index < inputs.size()) expectInvalidated(op.get(), "setInputPort");
  }

  void disconnect() {
    const auto op = lock(pickNode());
    if (!op) return;
    const unsigned how = m_chooser.below(4);
    const auto inputs = portsOf(*op, true);
    record("disconnect", op.get());
    if (how == 0) op->disconnectAllInputPorts();
    if (how == 1) op->disconnectAllOutputPorts();
    if (how == 2) op->disconnectAllPorts();
    if (how == 3 && !inputs.empty()) {
      static_cast<vorn::PortProxy*>(pick(inputs))->disconnect();
      expectInvalidated(op.get(), "disconnecting its input");
    }
  }

  void changeParameter() {
    const auto op = lock(pickNode());
    if (!op) return;
    const std::string name = pick(std::vector<std::string>{"size", "fail", "nosuch"});
    const std::string value =
        name == "fail" ? (m_chooser.percent(30) ? "1" : "0") : std::to_string(m_chooser.below(6));
    record("set", op.get());
    if (op->setParameterValue(name, value)) expectInvalidated(op.get(), "a parameter change");
  }

  boost::shared_ptr<vorn::RoiObject const> makeRegion() {
    const unsigned kind = m_chooser.below(4);
    vorn::Box shape(1);
    if (kind == 0) return nullptr;
    if (kind == 1) {
      // A mask of its own: a held output as mask could hold, through its own requested
      // region, the region that holds it, and that cycle of shared pointers leaks.
      auto mask = boost::make_shared<vorn::MaskRoi>();
      if (m_chooser.percent(20)) return mask;
      auto image = boost::make_shared<vorn::ImageObject>();
      shape.m_size[0] = m_chooser.below(6);
      image->Allocate(vorn::PixelType::UCHAR, shape);
      mask->setMaskImage(image);
      return mask;
    }
    auto box = boost::make_shared<vorn::BoxRoi>();
    shape.m_start[0] = m_chooser.below(3);
    shape.m_size[0] = m_chooser.below(5);
    box->setBox(shape);
    return box;
  }

  void requestRegion() {
    const auto op = lock(pickNode());
    if (!op) return;
    const auto region = makeRegion();
    record("region", op.get());
    if (op->isComposite() && m_chooser.percent(50)) {
      return static_cast<vorn::BasePipeline&>(*op).setRequestedRegionOfInterest(region);
    }
    const auto outputs = portsOf(*op, false).size();
    const unsigned index = below(outputs + 1);
    op->setRequestedRegionOfInterest(index, region);
    if (index < outputs) expectInvalidated(op.get(), "a region request");
  }

  void changeObservers() {
    const auto op = lock(pickNode());
    StressObserver& observer = m_observers[below(m_observers.size())];
    StressObserver& other = m_observers[below(m_observers.size())];
    const unsigned what = m_chooser.below(5);
    record("observer", op.get(), false);
    if (what >= 2) observer.arm(static_cast<StressObserver::Plan>(what - 1), &other);
    if (what == 0 && op) op->attachObserver(&observer);
    if (what == 1 && op) op->detachObserver(&observer);
  }

  // Whether, by the model's lists, `outer` is `inner` or holds it at any depth.
  bool holds(int outer, int inner) const {
    const auto& members = node(outer).members;
    return outer == inner || std::any_of(members.begin(), members.end(),
                                         [&](int member) { return holds(member, inner); });
  }

  // What a client does before moving an operator between scopes: cut its outside wiring.
  void cutOutsideWiring(vorn::ProcessObject& op) {
    op.disconnectAllInputPorts();
    for (vorn::Port* output : portsOf(op, false)) output->disconnectAttachedProxies();
  }

  void registerOperator() {
    const int pipelineNode = pickNode(true), i = pickNode();
    auto* pipeline = asPipeline(pipelineNode);
    const auto op = lock(i);
    if (pipeline == nullptr || !op) return;
    const bool refused = holds(i, pipelineNode);
    const bool member = std::any_of(m_nodes.begin(), m_nodes.end(), [&](const Node& n) {
      return std::count(n.members.begin(), n.members.end(), i) > 0;
    });
    if (m_wellFormed && !refused && (node(i).parent >= 0 || member)) return;
    if (m_wellFormed && !refused) cutOutsideWiring(*op);
    record("register", op.get());
    pipeline->registerOperator(op);
    if (refused) return;
    node(pipelineNode).members.push_back(i);
    node(i).parent = pipelineNode;
  }

  void unregisterOperator() {
    const int pipelineNode = pickNode(true);
    auto* pipeline = asPipeline(pipelineNode);
    if (pipeline == nullptr) return;
    std::vector<int>& members = node(pipelineNode).members;
    int i = members.empty() ? -1 : pick(members);
    if (!m_wellFormed && m_chooser.percent(20)) i = pickNode();
    const auto op = lock(i);
    if (!op) return;
    if (m_wellFormed) cutOutsideWiring(*op);
    record("unregister", op.get());
    pipeline->unRegisterOperator(op);
    node(i).parent = -1;
    const auto entry = std::find(members.begin(), members.end(), i);  // one registration
    if (entry != members.end()) members.erase(entry);
  }

  void update() {
    const auto op = lock(pickNode());
    if (!op) return;
    record("update", op.get(), false);
    const bool wasInvalidated = op->isInvalidated();
    try {
      op->update();
    } catch (const std::ios_base::failure&) {
      // Cycles, unconnected inputs and failing computations; the graph must stay sound.
      ++m_tally["failed"];
      if (wasInvalidated && !op->isComposite() && !op->isInvalidated()) {
        fail(op->getName() + " is validated after a failed update");
      }
      return;
    }
    ++m_tally["updated"];
    if (!vorn::Repercussion::isEnable()) return;
    if (!op->isComposite() && op->isInvalidated()) fail(op->getName() + " invalid after update");
    for (vorn::Port* output :
         op->isComposite() ? portsOf(*op, false) : std::vector<vorn::Port*>{}) {
      const auto data = output->getData();
      if (data && !data->isUptodate()) fail(op->getName() + " updated, an output stays stale");
    }
  }

  void toggleRepercussion() {
    const bool enable = !vorn::Repercussion::isEnable();
    record("repercussion", nullptr, false);
    vorn::Repercussion::setEnable(enable);
    if (!enable || !m_staleFlags) return;
    // What a client does after changing the graph with repercussion off: mark it all stale.
    for (int i = 0; i < count(); ++i) {
      const auto op = lock(i);
      if (op && !op->isComposite()) op->setToInvalidated();
    }
    m_staleFlags = false;
  }

  void holdData() {
    const auto ports = livePorts();
    if (!m_held.empty() && m_chooser.percent(30)) {
      m_held.erase(m_held.begin() + below(m_held.size()));
    } else if (!ports.empty()) {
      auto data = pick(ports).port->getData();
      if (!data) return;
      const int origin = nodeOf(data->getGenerator());
      if (data->getGenerator() != nullptr && origin < 0) fail("port data names a dead generator");
      if (m_held.size() >= 6) m_held.erase(m_held.begin());
      m_held.push_back({data, origin});
    }
    record("hold", nullptr, false);
  }

  // Adds a port to a pipeline or removes one; other operators' ports must be left alone.
  void changePorts() {
    const int pipelineNode = pickNode(true);
    auto* pipeline = asPipeline(pipelineNode);
    const auto op = lock(m_chooser.percent(85) ? pipelineNode : pickNode());
    if (pipeline == nullptr || !op) return;
    record("ports", pipeline);
    if (m_chooser.percent(40)) {
      // Another data type now and then, which every connection to an image port refuses.
      const std::string type = m_chooser.percent(15) ? "OtherObject" : "ImageObject";
      if (m_chooser.percent(50)) return (void)pipeline->addInput(type);
      return (void)pipeline->addOutput(type);
    }
    std::vector<vorn::Port*> ports = portsOf(*op, true), outputs = portsOf(*op, false);
    ports.insert(ports.end(), outputs.begin(), outputs.end());
    if (!ports.empty()) pipeline->removePort(pick(ports));
  }

  // Invalidates, prints, or flips the ignore-previous-region flag.
  void poke() {
    const auto op = lock(pickNode());
    if (!op) return;
    const unsigned what = m_chooser.below(5);
    record("poke", op.get(), false);
    if (what == 0) op->print();
    if (what == 1) op->setIgnorePreviousROI(!op->isIgnorePreviousROI());
    if (what < 2) return;
    op->setToInvalidated();
    expectInvalidated(op.get(), "setToInvalidated");
  }

  // A pipeline's destructor unregisters each of its operators: they lose their parent.
  void noteDeaths() {
    for (Node& dead : m_nodes) {
      if (dead.dead || !dead.alive.expired()) continue;
      dead.dead = true;
      for (int member : dead.members) node(member).parent = -1;
      dead.members.clear();
    }
  }

  // ---- invariants ----

  void fail(const std::string& what) {
    if (m_violation.empty()) m_violation = what;
  }

  void expectInvalidated(vorn::ProcessObject* op, const char* change) {
    if (op == nullptr || op->isComposite() || !vorn::Repercussion::isEnable()) return;
    if (!op->isInvalidated()) fail(op->getName() + " is not invalidated after " + change);
  }

  std::vector<bool> validatedOperators() const {
    std::vector<bool> validated;
    for (int i = 0; i < count(); ++i) {
      const auto op = lock(i);
      validated.push_back(op && !node(i).composite && !op->isInvalidated());
    }
    return validated;
  }

  std::string checkPorts() const {
    const auto ports = livePorts();
    std::set<const vorn::Port*> live;
    for (const PortInfo& info : ports) live.insert(info.port);
    for (const PortInfo& info : ports) {
      const vorn::Port* port = info.port;
      const std::string owner = "a port of " + node(info.node).name;
      if (port->getParent() != lock(info.node).get()) return owner + " names another parent";
      if (port->getNumberOfUse() != port->getAttachedProxies().size()) {
        return owner + " counts its readers wrong";
      }
      for (const vorn::PortProxy* reader : port->getAttachedProxies()) {
        if (!live.count(reader)) return owner + " lists a reader that is gone";
        if (reader->getConnection() != port) return owner + " lists a reader connected elsewhere";
      }
      const vorn::Port* connection = vorn::PortProxy::getConnection(port);
      if (connection == nullptr) continue;
      if (!live.count(connection)) return owner + " is connected to a dead port";
      auto* self = const_cast<vorn::PortProxy*>(static_cast<const vorn::PortProxy*>(port));
      if (!connection->getAttachedProxies().count(self)) return owner + " is not listed back";
    }
    return std::string();
  }

  // Its parent and members as registered; an operator's outputs hold its own data; and, where
  // flags are kept, a validated operator was computed from up-to-date data.
  std::string checkNode(int i) const {
    const auto op = lock(i);
    if (!op) return std::string();
    const std::string& name = node(i).name;
    if (op->getParent() != lock(node(i).parent).get()) return name + " has the wrong parent";
    if (node(i).composite) {
      std::vector<vorn::ProcessObject*> expected;
      for (int member : node(i).members) expected.push_back(lock(member).get());
      const bool same = asPipeline(i)->getOperators() == expected;
      return same ? std::string() : "the operator list of " + name + " differs";
    }
    for (vorn::Port* output : portsOf(*op, false)) {
      if (output->getData()->getGenerator() != op.get()) return name + " holds foreign data";
    }
    const bool fresh = m_wellFormed && !m_staleFlags && vorn::Repercussion::isEnable();
    for (vorn::Port* input :
         fresh && !op->isInvalidated() ? portsOf(*op, true) : std::vector<vorn::Port*>{}) {
      const auto data = input->getData();
      if (data && !data->isUptodate()) return name + " is validated but reads stale data";
    }
    return std::string();
  }

  // Declared before the nodes, so that they outlive every operator that may notify them; one
  // array, so that their address order (the notification order) is their index order.
  std::array<StressObserver, 4> m_observers;
  Chooser& m_chooser;
  bool m_wellFormed;
  std::vector<Node> m_nodes;
  std::vector<std::pair<boost::shared_ptr<vorn::DataObject>, int>> m_held;  // data, origin
  std::deque<std::string> m_history;
  std::map<std::string, unsigned> m_tally;
  std::string m_violation;
  bool m_staleFlags = false;  // changed with repercussion off since it was last on
};

}  // namespace graphops

// GraphOperations: random operations on a small graph of operators and nested pipelines, and
// the invariants that must hold after every one of them, checked through the public API only.
// Shared by the stress test (choices from a seeded generator) and the operations fuzz target
// (choices from the fuzzer's bytes).
//
//   graphops::SeededChooser chooser(42);
//   graphops::World world(chooser, /*wellFormed=*/true);
//   for (int i = 0; i < 100; ++i) {
//     world.step();
//     if (!world.check().empty()) ...;   // the first broken invariant, in words
//   }
//
// A well-formed world wires only what a client following the pipeline rules would: an input
// reads a port of its own scope (an output of an operator with the same parent, or an input of
// that parent pipeline), and operators move between pipelines only once disconnected. There,
// an operator that is validated must read up-to-date data. A wild world wires anything the API
// accepts and is checked for the structural invariants only.
//
// Sharp edges: the repercussion switch is process-wide; World puts it back on when destroyed.
// The core writes to std::cout; callers silence it (see CoutDiscard.hpp).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <ios>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "vorn/BasePipeline.hpp"
#include "vorn/Box.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/IObserver.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/MaskRoi.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"

namespace graphops {

// Where the random choices come from.
class Chooser {
 public:
  virtual ~Chooser() = default;
  // A number below `count`; 0 when count is 0 or 1.
  virtual unsigned below(unsigned count) = 0;
  bool percent(unsigned chance) { return below(100) < chance; }
};

class SeededChooser : public Chooser {
 public:
  explicit SeededChooser(std::uint32_t seed) : m_engine(seed) {}
  // A plain modulo: the distributions of <random> differ between standard libraries.
  unsigned below(unsigned count) override {
    return count <= 1 ? 0 : static_cast<unsigned>(m_engine() % count);
  }

 private:
  std::mt19937 m_engine;
};

// Reads one byte per choice; once the bytes run out every choice is 0 and exhausted() is true.
class ByteChooser : public Chooser {
 public:
  ByteChooser(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
  unsigned below(unsigned count) override {
    if (count <= 1) return 0;
    if (m_position >= m_size) {
      m_exhausted = true;
      return 0;
    }
    return m_data[m_position++] % count;
  }
  bool exhausted() const { return m_exhausted; }

 private:
  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_position = 0;
  bool m_exhausted = false;
};

// An operator with image ports whose computation reads its inputs' pixels and writes a small
// image of `size` pixels on each output, or throws when its parameter `fail` is "1".
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
    for (unsigned i = 0; getInputPort(i) != nullptr; ++i) sum += readPixels(i);
    const unsigned long size = std::stoul(getParameterValue("size"));
    for (unsigned o = 0; getOutputPort(o) != nullptr; ++o) writePixels(o, size, sum);
  }

 private:
  unsigned readPixels(unsigned input) {
    const auto image =
        boost::dynamic_pointer_cast<vorn::ImageObject>(getInputPort(input)->getData());
    if (!image || image->getBuffer() == nullptr) return 0;
    const auto* bytes = static_cast<const unsigned char*>(image->getBuffer());
    const unsigned long count = image->getPixelNumber() * vorn::getSizeOf(image->getPointType());
    unsigned sum = 0;
    for (unsigned long i = 0; i < count; ++i) sum += bytes[i];
    return sum;
  }

  void writePixels(unsigned output, unsigned long size, unsigned sum) {
    const auto image =
        boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(output)->getData());
    if (!image) return;
    // The region a computation is asked for must be readable whatever it is.
    if (image->m_regionOfInterest) (void)image->m_regionOfInterest->getBoundingBox().volume();
    vorn::Box box(1);
    box.m_size[0] = size;
    image->Allocate(vorn::PixelType::UCHAR, box);
    if (size > 0) std::memset(image->getBuffer(), static_cast<int>(sum & 0xff), size);
  }
};

// An observer that, when armed, attaches or detaches an observer on the operator that notifies
// it next, once: changes to the observer set from inside a notification.
class StressObserver : public vorn::IObserver {
 public:
  enum class Plan { None, DetachSelf, AttachOther, DetachOther };

  void arm(Plan plan, StressObserver* other) {
    m_plan = plan;
    m_other = other;
  }
  void onDataHasBeenGenerated(vorn::ProcessObject* op) override { react(op); }
  void onStartComputingData(vorn::ProcessObject* op) override { react(op); }
  void onInvalidated(vorn::ProcessObject* op) override { react(op); }
  void onValidated(vorn::ProcessObject* op) override { react(op); }
  void onParameterHasBeenChanged(vorn::ProcessObject* op) override { react(op); }

 private:
  void react(vorn::ProcessObject* op) {
    const Plan plan = m_plan;
    m_plan = Plan::None;
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
    for (std::size_t i = m_nodes.size(); i-- > 0;) {
      m_nodes[i].held.reset();
      noteDeaths();
    }
    vorn::Repercussion::setEnable(true);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Applies one random step, then records what it broke, if anything, for check().
  void step() {
    const std::vector<bool> validated = validatedOperators();
    const Kind kind = chooseKind();
    apply(kind);
    noteDeaths();
    if (kind != Kind::Update || !vorn::Repercussion::isEnable()) noNewValidation(validated);
  }

  // The first broken invariant in words, with the last steps; empty when all hold.
  std::string check() {
    std::string broken = m_violation;
    if (broken.empty()) broken = checkPorts();
    if (broken.empty()) broken = checkHeldData();
    if (broken.empty()) broken = checkPipelines();
    if (broken.empty() && freshnessApplies()) broken = checkFreshInputs();
    if (broken.empty()) return broken;
    for (const std::string& line : m_history) broken += "\n  after: " + line;
    return broken + "\n" + describeGraph();
  }

  // One line per live operator: flag, parent, and what each of its ports reads.
  std::string describeGraph() const {
    std::string text;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      if (!op) continue;
      text += "  " + m_nodes[i].name + (op->isInvalidated() ? " (invalidated)" : " (validated)") +
              " in " + nameOf(op->getParent()) + ":";
      for (bool input : {true, false}) {
        for (vorn::Port* port : portsOf(*op, input)) {
          text += std::string(input ? " in<-" : " out<-") +
                  describe(vorn::PortProxy::getConnection(port));
        }
      }
      text += "\n";
    }
    return text;
  }

  // Writes each step's description to `stream` as it starts (null stops): for steps that hang
  // or crash before check() can tell.
  void traceTo(std::ostream* stream) { m_trace = stream; }

  // How many steps of each kind ran, by the first word of their description ("update",
  // "connect", ...), with "updated" and "failed" for the outcomes of updates.
  const std::map<std::string, unsigned>& tally() const { return m_tally; }

  std::size_t liveCount() const {
    return static_cast<std::size_t>(
        std::count_if(m_nodes.begin(), m_nodes.end(), [](const Node& node) { return !node.dead; }));
  }

 private:
  enum class Kind {
    CreateOperator,
    CreatePipeline,
    Drop,
    Connect,
    SetInputPort,
    Disconnect,
    Parameter,
    Region,
    Observer,
    Register,
    Unregister,
    Update,
    Repercussion,
    HoldData,
    RemovePort,
    AddPort,
    Invalidate,
    IgnoreRoi,
    Print
  };

  struct Node {
    std::string name;
    bool composite;
    boost::shared_ptr<vorn::ProcessObject> held;  // the world's reference; empty once dropped
    boost::weak_ptr<vorn::ProcessObject> alive;
    bool dead = false;         // its death is already in the model
    int parent = -1;           // the parent the model expects, a node index
    std::vector<int> members;  // the operator list the model expects, for pipelines
  };

  struct Held {
    boost::shared_ptr<vorn::DataObject> data;
    int origin;  // the node that generated it when taken, or -1
  };

  struct PortInfo {
    int node;
    bool input;
  };

  static constexpr std::size_t kMaxNodes = 14;
  static constexpr std::size_t kMaxPipelines = 4;
  static constexpr std::size_t kMaxHeld = 6;
  static constexpr std::size_t kHistory = 12;

  // ---- choosing ----

  Kind chooseKind() {
    // Weights: edits of the wiring dominate, creation keeps the pool from running dry.
    const std::array<std::pair<Kind, unsigned>, 19> weights{
        {{Kind::CreateOperator, liveCount() < 4 ? 30u : 6u},
         {Kind::CreatePipeline, 3},
         {Kind::Drop, 4},
         {Kind::Connect, 14},
         {Kind::SetInputPort, 8},
         {Kind::Disconnect, 4},
         {Kind::Parameter, 6},
         {Kind::Region, 5},
         {Kind::Observer, 5},
         {Kind::Register, 5},
         {Kind::Unregister, 3},
         {Kind::Update, 12},
         {Kind::Repercussion, 2},
         {Kind::HoldData, 4},
         {Kind::RemovePort, 2},
         {Kind::AddPort, 3},
         {Kind::Invalidate, 3},
         {Kind::IgnoreRoi, 1},
         {Kind::Print, 1}}};
    unsigned total = 0;
    for (const auto& weight : weights) total += weight.second;
    unsigned pick = m_chooser.below(total);
    for (const auto& weight : weights) {
      if (pick < weight.second) return weight.first;
      pick -= weight.second;
    }
    return Kind::Update;
  }

  // A live node index, or -1; only pipelines when `composite`.
  int pickNode(bool onlyPipelines = false) {
    std::vector<int> candidates;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      if (!m_nodes[i].dead && (!onlyPipelines || m_nodes[i].composite)) {
        candidates.push_back(static_cast<int>(i));
      }
    }
    if (candidates.empty()) return -1;
    return candidates[m_chooser.below(static_cast<unsigned>(candidates.size()))];
  }

  boost::shared_ptr<vorn::ProcessObject> lock(int node) const {
    return node < 0 ? nullptr : m_nodes[static_cast<std::size_t>(node)].alive.lock();
  }

  vorn::BasePipeline* asPipeline(int node) const {
    return dynamic_cast<vorn::BasePipeline*>(lock(node).get());
  }

  int nodeOf(const vorn::ProcessObject* op) const {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      if (!m_nodes[i].dead && lock(static_cast<int>(i)).get() == op) return static_cast<int>(i);
    }
    return -1;
  }

  static std::vector<vorn::Port*> portsOf(vorn::ProcessObject& op, bool inputs) {
    std::vector<vorn::Port*> ports;
    for (unsigned i = 0;; ++i) {
      vorn::Port* port =
          inputs ? static_cast<vorn::Port*>(op.getInputPort(i)) : op.getOutputPort(i);
      if (port == nullptr) return ports;
      ports.push_back(port);
    }
  }

  // Every live port and its owner.
  std::map<const vorn::Port*, PortInfo> livePorts() const {
    std::map<const vorn::Port*, PortInfo> ports;
    for (const auto& entry : orderedPorts()) ports[entry.first] = entry.second;
    return ports;
  }

  // Ports that connect to others: every input, and a pipeline's outputs.
  std::vector<vorn::PortProxy*> proxies() const {
    std::vector<vorn::PortProxy*> result;
    for (const auto& entry : orderedPorts()) {
      if (auto* proxy = dynamic_cast<vorn::PortProxy*>(entry.first)) result.push_back(proxy);
    }
    return result;
  }

  // Live ports in node order, then inputs before outputs: no dependence on addresses.
  std::vector<std::pair<vorn::Port*, PortInfo>> orderedPorts() const {
    std::vector<std::pair<vorn::Port*, PortInfo>> result;
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      if (!op) continue;
      for (bool input : {true, false}) {
        for (vorn::Port* port : portsOf(*op, input)) {
          result.push_back({port, {static_cast<int>(i), input}});
        }
      }
    }
    return result;
  }

  // The pipeline whose inner wiring `proxy` belongs to (-1 for the top level).
  int scopeOf(const vorn::PortProxy* proxy, const PortInfo& info) const {
    if (!info.input) return info.node;  // a pipeline's output reads from inside it
    return nodeOf(proxy->getParent() ? proxy->getParent()->getParent() : nullptr);
  }

  // A port `proxy` may read: in a well-formed world one of its scope, else any port at all.
  const vorn::Port* pickTarget(const vorn::PortProxy* proxy) {
    std::vector<const vorn::Port*> targets;
    const auto ports = orderedPorts();
    PortInfo reader{-1, true};
    for (const auto& entry : ports) {
      if (entry.first == proxy) reader = entry.second;
    }
    const int scope = scopeOf(proxy, reader);
    for (const auto& entry : ports) {
      if (!m_wellFormed || isVisibleFrom(entry.second, scope)) {
        targets.push_back(entry.first);
      }
    }
    if (targets.empty() || m_chooser.percent(8)) return nullptr;
    return targets[m_chooser.below(static_cast<unsigned>(targets.size()))];
  }

  // Outputs of the operators in `scope`, and the inputs of the scope's pipeline.
  bool isVisibleFrom(const PortInfo& port, int scope) const {
    if (port.input) return port.node == scope;
    const auto op = lock(port.node);
    return nodeOf(op ? op->getParent() : nullptr) == scope;
  }

  // ---- steps ----

  void apply(Kind kind) {
    switch (kind) {
      case Kind::CreateOperator:
        return createOperator();
      case Kind::CreatePipeline:
        return createPipeline();
      case Kind::Drop:
        return drop();
      case Kind::Connect:
        return connect();
      case Kind::SetInputPort:
        return setInputPort();
      case Kind::Disconnect:
        return disconnect();
      case Kind::Parameter:
        return changeParameter();
      case Kind::Region:
        return requestRegion();
      case Kind::Observer:
        return changeObservers();
      case Kind::Register:
        return registerOperator();
      case Kind::Unregister:
        return unregisterOperator();
      case Kind::Update:
        return update();
      case Kind::Repercussion:
        return toggleRepercussion();
      case Kind::HoldData:
        return holdData();
      case Kind::RemovePort:
        return removePort();
      case Kind::AddPort:
        return addPort();
      case Kind::Invalidate:
        return invalidate();
      case Kind::IgnoreRoi:
        return ignoreRoi();
      case Kind::Print:
        return print();
    }
  }

  void record(const std::string& line) {
    if (m_trace != nullptr) *m_trace << line << std::endl;
    ++m_tally[line.substr(0, line.find(' '))];
    m_history.push_back(line);
    if (m_history.size() > kHistory) m_history.pop_front();
  }

  // Changes while repercussion is off leave flags stale by design.
  void noteChange() {
    if (!vorn::Repercussion::isEnable()) m_staleFlags = true;
  }

  void addNode(boost::shared_ptr<vorn::ProcessObject> op, bool composite) {
    if (liveCount() >= kMaxNodes) return;
    Node node;
    node.name = op->getName();
    node.composite = composite;
    node.held = op;
    node.alive = op;
    m_nodes.push_back(node);
    record("create " + node.name);
  }

  void createOperator() {
    const unsigned inputs = m_chooser.below(4);
    const unsigned outputs = m_chooser.below(3);
    const std::string name = "op" + std::to_string(m_nodes.size());
    addNode(boost::make_shared<StressOperator>(name, inputs, outputs), false);
  }

  void createPipeline() {
    const std::size_t pipelines = static_cast<std::size_t>(std::count_if(
        m_nodes.begin(), m_nodes.end(), [](const Node& n) { return !n.dead && n.composite; }));
    if (pipelines >= kMaxPipelines) return;
    auto pipeline = boost::make_shared<vorn::BasePipeline>();
    pipeline->setName("pipe" + std::to_string(m_nodes.size()));
    for (unsigned i = m_chooser.below(3); i > 0; --i) pipeline->addInput("ImageObject");
    for (unsigned i = m_chooser.below(3); i > 0; --i) pipeline->addOutput("ImageObject");
    addNode(pipeline, true);
  }

  void drop() {
    const int node = pickNode();
    if (node < 0) return;
    record("drop " + m_nodes[static_cast<std::size_t>(node)].name);
    noteChange();
    m_nodes[static_cast<std::size_t>(node)].held.reset();
  }

  void connect() {
    const auto all = proxies();
    if (all.empty()) return;
    vorn::PortProxy* proxy = all[m_chooser.below(static_cast<unsigned>(all.size()))];
    const vorn::Port* target = pickTarget(proxy);
    record("connect a port of " + nameOf(proxy->getParent()) + " to " + describe(target));
    noteChange();
    proxy->connectTo(target);
    // A refused connection (another data type, a loop of input ports) changes nothing.
    if (proxy->getConnection() == target) {
      expectInvalidated(proxy->getParent(), "connecting its input");
    }
  }

  void setInputPort() {
    const int node = pickNode();
    const auto op = lock(node);
    if (!op) return;
    const auto inputs = portsOf(*op, true);
    const unsigned index = m_chooser.below(static_cast<unsigned>(inputs.size()) + 1);
    auto* proxy = index < inputs.size() ? static_cast<vorn::PortProxy*>(inputs[index]) : nullptr;
    const vorn::Port* target = proxy != nullptr ? pickTarget(proxy) : nullptr;
    record("setInputPort " + std::to_string(index) + " of " + op->getName() + " to " +
           describe(target));
    noteChange();
    op->setInputPort(index, target);
    if (index < inputs.size()) expectInvalidated(op.get(), "setInputPort");
  }

  void disconnect() {
    const int node = pickNode();
    const auto op = lock(node);
    if (!op) return;
    const unsigned how = m_chooser.below(4);
    record("disconnect (" + std::to_string(how) + ") " + op->getName());
    noteChange();
    if (how == 0) op->disconnectAllInputPorts();
    if (how == 1) op->disconnectAllOutputPorts();
    if (how == 2) op->disconnectAllPorts();
    if (how == 3) {
      const auto inputs = portsOf(*op, true);
      if (inputs.empty()) return;
      static_cast<vorn::PortProxy*>(inputs[m_chooser.below(static_cast<unsigned>(inputs.size()))])
          ->disconnect();
      expectInvalidated(op.get(), "disconnecting its input");
    }
  }

  void changeParameter() {
    const auto op = lock(pickNode());
    if (!op) return;
    static const char* const names[] = {"size", "fail", "nosuch"};
    const std::string name = names[m_chooser.below(3)];
    const std::string value =
        name == "fail" ? (m_chooser.percent(30) ? "1" : "0") : std::to_string(m_chooser.below(6));
    record("set " + name + "=" + value + " on " + op->getName());
    noteChange();
    if (op->setParameterValue(name, value)) expectInvalidated(op.get(), "a parameter change");
  }

  boost::shared_ptr<vorn::RoiObject const> makeRegion() {
    const unsigned kind = m_chooser.below(4);
    if (kind == 0) return nullptr;
    if (kind == 1) {
      // A mask of its own: a held output as mask could end up holding, through its own
      // requested region, the region that holds it, and that cycle of shared pointers leaks.
      auto mask = boost::make_shared<vorn::MaskRoi>();
      if (m_chooser.percent(80)) {
        auto image = boost::make_shared<vorn::ImageObject>();
        vorn::Box shape(1);
        shape.m_size[0] = m_chooser.below(6);
        image->Allocate(vorn::PixelType::UCHAR, shape);
        mask->setMaskImage(image);
      }
      return mask;
    }
    auto box = boost::make_shared<vorn::BoxRoi>();
    vorn::Box shape(1);
    shape.m_start[0] = static_cast<long>(m_chooser.below(3));
    shape.m_size[0] = m_chooser.below(5);
    box->setBox(shape);
    return box;
  }

  void requestRegion() {
    const int node = pickNode();
    const auto op = lock(node);
    if (!op) return;
    const auto region = makeRegion();
    auto* pipeline = dynamic_cast<vorn::BasePipeline*>(op.get());
    noteChange();
    if (pipeline != nullptr && m_chooser.percent(50)) {
      record("pipeline region on " + op->getName());
      pipeline->setRequestedRegionOfInterest(region);
      return;
    }
    const unsigned outputs = static_cast<unsigned>(portsOf(*op, false).size());
    const unsigned index = m_chooser.below(outputs + 1);
    record("region on output " + std::to_string(index) + " of " + op->getName());
    op->setRequestedRegionOfInterest(index, region);
    if (index < outputs) expectInvalidated(op.get(), "a region request");
  }

  void changeObservers() {
    const auto op = lock(pickNode());
    StressObserver& observer = m_observers[m_chooser.below(kObservers)];
    StressObserver& other = m_observers[m_chooser.below(kObservers)];
    const unsigned what = m_chooser.below(5);
    if (what >= 2) {
      observer.arm(static_cast<StressObserver::Plan>(what - 1), &other);
      return record("arm an observer");
    }
    if (!op) return;
    record(std::string(what == 0 ? "attach" : "detach") + " an observer on " + op->getName());
    if (what == 0) op->attachObserver(&observer);
    if (what == 1) op->detachObserver(&observer);
  }

  // Whether, by the model's lists, `outer` is `inner` or holds it at any depth.
  bool holds(int outer, int inner) const {
    if (outer == inner) return true;
    for (int member : m_nodes[static_cast<std::size_t>(outer)].members) {
      if (holds(member, inner)) return true;
    }
    return false;
  }

  bool isMemberAnywhere(int node) const {
    for (const Node& other : m_nodes) {
      if (std::count(other.members.begin(), other.members.end(), node) > 0) return true;
    }
    return false;
  }

  // What a client does before moving an operator between scopes: cut its outside wiring.
  void cutOutsideWiring(vorn::ProcessObject& op) {
    op.disconnectAllInputPorts();
    for (vorn::Port* output : portsOf(op, false)) output->disconnectAttachedProxies();
  }

  void registerOperator() {
    const int pipelineNode = pickNode(true);
    const int node = pickNode();
    auto* pipeline = asPipeline(pipelineNode);
    const auto op = lock(node);
    if (pipeline == nullptr || !op) return;
    const bool refused = holds(node, pipelineNode);
    if (m_wellFormed && !refused &&
        (m_nodes[static_cast<std::size_t>(node)].parent >= 0 || isMemberAnywhere(node))) {
      return;
    }
    if (m_wellFormed && !refused) cutOutsideWiring(*op);
    record("register " + op->getName() + " in " + pipeline->getName());
    noteChange();
    pipeline->registerOperator(op);
    if (refused) return;
    m_nodes[static_cast<std::size_t>(pipelineNode)].members.push_back(node);
    m_nodes[static_cast<std::size_t>(node)].parent = pipelineNode;
  }

  void unregisterOperator() {
    const int pipelineNode = pickNode(true);
    auto* pipeline = asPipeline(pipelineNode);
    if (pipeline == nullptr) return;
    std::vector<int>& members = m_nodes[static_cast<std::size_t>(pipelineNode)].members;
    int node =
        members.empty() ? -1 : members[m_chooser.below(static_cast<unsigned>(members.size()))];
    if (!m_wellFormed && m_chooser.percent(20)) node = pickNode();
    const auto op = lock(node);
    if (!op) return;
    if (m_wellFormed) cutOutsideWiring(*op);
    record("unregister " + op->getName() + " from " + pipeline->getName());
    noteChange();
    pipeline->unRegisterOperator(op);
    m_nodes[static_cast<std::size_t>(node)].parent = -1;
    const auto entry = std::find(members.begin(), members.end(), node);
    if (entry != members.end()) members.erase(entry);
  }

  void update() {
    const auto op = lock(pickNode());
    if (!op) return;
    const bool repercussion = vorn::Repercussion::isEnable();
    record(std::string("update ") + op->getName() + (repercussion ? "" : " (no repercussion)"));
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
    if (repercussion) expectValidatedAfterUpdate(*op);
  }

  void toggleRepercussion() {
    const bool enable = !vorn::Repercussion::isEnable();
    record(enable ? "repercussion on" : "repercussion off");
    vorn::Repercussion::setEnable(enable);
    if (!enable || !m_staleFlags) return;
    // What a client does after changing the graph with repercussion off: mark it all stale.
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      if (const auto op = lock(static_cast<int>(i))) {
        if (!op->isComposite()) op->setToInvalidated();
      }
    }
    m_staleFlags = false;
  }

  void holdData() {
    if (!m_held.empty() && m_chooser.percent(30)) {
      m_held.erase(m_held.begin() + m_chooser.below(static_cast<unsigned>(m_held.size())));
      return record("release held data");
    }
    const auto ports = orderedPorts();
    if (ports.empty()) return;
    const vorn::Port* port = ports[m_chooser.below(static_cast<unsigned>(ports.size()))].first;
    auto data = port->getData();
    if (!data) return;
    const vorn::ProcessObject* generator = data->getGenerator();
    const int origin = nodeOf(generator);
    if (generator != nullptr && origin < 0) fail("data taken from a port names a dead generator");
    if (m_held.size() >= kMaxHeld) m_held.erase(m_held.begin());
    m_held.push_back({data, origin});
    record("hold the data of " + describe(port));
  }

  void removePort() {
    const int pipelineNode = pickNode(true);
    auto* pipeline = asPipeline(pipelineNode);
    if (pipeline == nullptr) return;
    // Mostly its own ports; sometimes another operator's, which must be left alone.
    const int owner = m_chooser.percent(85) ? pipelineNode : pickNode();
    const auto op = lock(owner);
    if (!op) return;
    std::vector<vorn::Port*> ports = portsOf(*op, true);
    const auto outputs = portsOf(*op, false);
    ports.insert(ports.end(), outputs.begin(), outputs.end());
    if (ports.empty()) return;
    vorn::Port* port = ports[m_chooser.below(static_cast<unsigned>(ports.size()))];
    record("removePort of " + op->getName() + " from " + pipeline->getName());
    noteChange();
    pipeline->removePort(port);
  }

  void addPort() {
    auto* pipeline = asPipeline(pickNode(true));
    if (pipeline == nullptr) return;
    // Another data type now and then, which every connection to an image port refuses.
    const std::string type = m_chooser.percent(15) ? "OtherObject" : "ImageObject";
    const bool input = m_chooser.percent(50);
    record(std::string("add ") + (input ? "input " : "output ") + type + " to " +
           pipeline->getName());
    if (input) pipeline->addInput(type);
    if (!input) pipeline->addOutput(type);
  }

  void invalidate() {
    const auto op = lock(pickNode());
    if (!op) return;
    record("invalidate " + op->getName());
    op->setToInvalidated();
    expectInvalidated(op.get(), "setToInvalidated");
  }

  void ignoreRoi() {
    const auto op = lock(pickNode());
    if (!op) return;
    record("ignore previous region on " + op->getName());
    op->setIgnorePreviousROI(!op->isIgnorePreviousROI());
  }

  void print() {
    const auto op = lock(pickNode());
    if (!op) return;
    record("print " + op->getName());
    op->print();
  }

  // ---- model upkeep ----

  // A pipeline's destructor unregisters each of its operators: they lose their parent.
  void noteDeaths() {
    for (Node& node : m_nodes) {
      if (node.dead || !node.alive.expired()) continue;
      node.dead = true;
      for (int member : node.members) m_nodes[static_cast<std::size_t>(member)].parent = -1;
      node.members.clear();
    }
  }

  // ---- invariants ----

  void fail(const std::string& what) {
    if (m_violation.empty()) m_violation = what;
  }

  std::string nameOf(const vorn::ProcessObject* op) const {
    return op == nullptr ? std::string("(no operator)") : op->getName();
  }

  std::string describe(const vorn::Port* port) const {
    if (port == nullptr) return "nothing";
    const auto ports = livePorts();
    const auto entry = ports.find(port);
    if (entry == ports.end()) return "a dead port";
    return std::string(entry->second.input ? "an input" : "an output") + " of " +
           m_nodes[static_cast<std::size_t>(entry->second.node)].name;
  }

  void expectInvalidated(vorn::ProcessObject* op, const char* change) {
    if (op == nullptr || op->isComposite() || !vorn::Repercussion::isEnable()) return;
    if (!op->isInvalidated()) fail(op->getName() + " is not invalidated after " + change);
  }

  void expectValidatedAfterUpdate(vorn::ProcessObject& op) {
    if (!op.isComposite()) {
      if (op.isInvalidated()) fail(op.getName() + " is invalidated after a successful update");
      return;
    }
    for (vorn::Port* output : portsOf(op, false)) {
      const auto data = output->getData();
      if (data && !data->isUptodate()) {
        fail("pipeline " + op.getName() + " updated, yet an output's data is stale");
      }
    }
  }

  std::vector<bool> validatedOperators() const {
    std::vector<bool> validated(m_nodes.size(), false);
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      validated[i] = op && !m_nodes[i].composite && !op->isInvalidated();
    }
    return validated;
  }

  // Only an update with repercussion validates anything.
  void noNewValidation(const std::vector<bool>& before) {
    const std::vector<bool> after = validatedOperators();
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (after[i] && !before[i]) fail(m_nodes[i].name + " became validated without an update");
    }
  }

  std::string checkPorts() const {
    const auto ports = livePorts();
    for (const auto& entry : ports) {
      const vorn::Port* port = entry.first;
      const std::string owner = m_nodes[static_cast<std::size_t>(entry.second.node)].name;
      if (port->getParent() != lock(entry.second.node).get())
        return "a port of " + owner + " names another parent";
      if (port->getNumberOfUse() != port->getAttachedProxies().size()) {
        return "a port of " + owner + " counts its readers wrong";
      }
      for (const vorn::PortProxy* reader : port->getAttachedProxies()) {
        if (ports.count(reader) == 0) return "a port of " + owner + " lists a reader that is gone";
        if (reader->getConnection() != port) {
          return "a port of " + owner + " lists a reader connected elsewhere";
        }
      }
      const vorn::Port* connection = vorn::PortProxy::getConnection(port);
      if (connection == nullptr) continue;
      if (ports.count(connection) == 0)
        return "a port of " + owner + " is connected to a dead port";
      if (connection->getAttachedProxies().count(
              const_cast<vorn::PortProxy*>(static_cast<const vorn::PortProxy*>(port))) == 0) {
        return "a port of " + owner + " is connected but not listed by its connection";
      }
    }
    return std::string();
  }

  std::string checkHeldData() const {
    for (const Held& held : m_held) {
      const auto origin = lock(held.origin);
      if (held.data->getGenerator() != origin.get()) {
        return "held data names the wrong generator (taken from " +
               (held.origin < 0 ? std::string("no operator")
                                : m_nodes[static_cast<std::size_t>(held.origin)].name) +
               (origin ? ", alive)" : ", gone)");
      }
    }
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      if (!op || m_nodes[i].composite) continue;
      for (vorn::Port* output : portsOf(*op, false)) {
        if (output->getData()->getGenerator() != op.get()) {
          return "an output of " + m_nodes[i].name + " holds data of another generator";
        }
      }
    }
    return std::string();
  }

  std::string checkPipelines() const {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      if (!op) continue;
      if (op->getParent() != lock(m_nodes[i].parent).get()) {
        return m_nodes[i].name + " has parent " + nameOf(op->getParent()) + ", expected " +
               (m_nodes[i].parent < 0 ? "none"
                                      : m_nodes[static_cast<std::size_t>(m_nodes[i].parent)].name);
      }
      if (!m_nodes[i].composite) continue;
      std::vector<vorn::ProcessObject*> expected;
      for (int member : m_nodes[i].members) expected.push_back(lock(member).get());
      if (asPipeline(static_cast<int>(i))->getOperators() != expected) {
        return "the operator list of " + m_nodes[i].name + " differs from its registrations";
      }
    }
    return std::string();
  }

  bool freshnessApplies() const {
    return m_wellFormed && !m_staleFlags && vorn::Repercussion::isEnable();
  }

  // A validated operator was computed from up-to-date data and nothing changed since.
  std::string checkFreshInputs() const {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const auto op = lock(static_cast<int>(i));
      if (!op || m_nodes[i].composite || op->isInvalidated()) continue;
      for (vorn::Port* input : portsOf(*op, true)) {
        const auto data = input->getData();
        if (data && !data->isUptodate()) {
          return m_nodes[i].name + " is validated but reads stale data of " +
                 nameOf(data->getGenerator());
        }
      }
    }
    return std::string();
  }

  static constexpr unsigned kObservers = 4;
  // Declared before the nodes, so that they outlive every operator that may notify them; one
  // array, so that their address order (the notification order) is their index order.
  std::array<StressObserver, kObservers> m_observers;
  Chooser& m_chooser;
  bool m_wellFormed;
  std::vector<Node> m_nodes;
  std::vector<Held> m_held;
  std::deque<std::string> m_history;
  std::map<std::string, unsigned> m_tally;
  std::ostream* m_trace = nullptr;
  std::string m_violation;
  bool m_staleFlags = false;  // changed with repercussion off since it was last on
};

}  // namespace graphops

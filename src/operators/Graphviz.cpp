#include "vorn/operators/Graphviz.hpp"

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "vorn/BasePipeline.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortProxy.hpp"

namespace vorn {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

struct Node {
  ProcessObject* op;
  BasePipeline* pipeline;  // non-null when drawn as a cluster
  std::size_t container;   // the cluster holding it, or kNone
};

struct Edge {
  std::size_t from;
  std::size_t to;
  unsigned int input;
  bool labelled;
};

unsigned int inputCount(const ProcessObject& op) {
  unsigned int count = 0;
  while (op.getInputPort(count) != nullptr) ++count;
  return count;
}

// The operator whose output port holds the data an input reads: the end of the chain of input
// ports (composites expose their inner ports through such chains).
ProcessObject* generatorOf(PortProxy* input) {
  std::set<const Port*> seen;
  Port* port = input;
  while (PortProxy* proxy = dynamic_cast<PortProxy*>(port)) {
    if (!seen.insert(proxy).second) return nullptr;
    port = proxy->getConnection();
  }
  return port != nullptr ? port->getParent() : nullptr;
}

class Graph {
 public:
  explicit Graph(const std::vector<ProcessObject*>& roots) {
    for (ProcessObject* root : roots) {
      if (root != nullptr) visit(root);
    }
    for (std::size_t next = 0; next < m_nodes.size(); ++next) explore(next);
    breakContainerLoops();
  }

  void write(std::ostream& os) const {
    os << "digraph vorn {\n  node [shape=box];\n";
    for (std::size_t n = 0; n < m_nodes.size(); ++n) {
      if (m_nodes[n].container == kNone) writeNode(os, n, "  ");
    }
    for (const Edge& edge : m_edges) {
      os << "  op" << edge.from << " -> op" << edge.to;
      if (edge.labelled) os << " [label=\"" << edge.input << "\"]";
      os << ";\n";
    }
    os << "}\n";
  }

 private:
  std::size_t visit(ProcessObject* op) {
    const auto found = m_index.find(op);
    if (found != m_index.end()) return found->second;
    BasePipeline* pipeline = op->isComposite() ? dynamic_cast<BasePipeline*>(op) : nullptr;
    m_nodes.push_back({op, pipeline, kNone});
    m_index.emplace(op, m_nodes.size() - 1);
    return m_nodes.size() - 1;
  }

  void explore(std::size_t n) {
    ProcessObject* const op = m_nodes[n].op;
    // Operators are always created non-const; getParent() merely hands them out as const.
    auto* parent = const_cast<ProcessObject*>(op->getParent());
    if (parent != nullptr && parent->isComposite() && dynamic_cast<BasePipeline*>(parent)) {
      const std::size_t container = visit(parent);
      m_nodes[n].container = container;
    }
    if (BasePipeline* pipeline = m_nodes[n].pipeline) {
      for (ProcessObject* inner : pipeline->getOperators()) {
        if (inner != nullptr) visit(inner);
      }
    }
    const unsigned int inputs = inputCount(*op);
    for (unsigned int i = 0; i < inputs; ++i) {
      ProcessObject* generator = generatorOf(op->getInputPort(i));
      if (generator == nullptr) continue;
      const std::size_t from = visit(generator);
      // A composite's own inputs are drawn at the inner operators that read them.
      if (m_nodes[n].pipeline == nullptr) m_edges.push_back({from, n, i, inputs > 1});
    }
  }

  // Parent pointers set by hand may form a loop; cutting the link that closes it keeps every
  // node drawn exactly once.
  void breakContainerLoops() {
    for (std::size_t n = 0; n < m_nodes.size(); ++n) {
      std::set<std::size_t> seen{n};
      for (std::size_t at = n; m_nodes[at].container != kNone; at = m_nodes[at].container) {
        if (!seen.insert(m_nodes[at].container).second) {
          m_nodes[at].container = kNone;
          break;
        }
      }
    }
  }

  void writeNode(std::ostream& os, std::size_t n, const std::string& indent) const {
    const Node& node = m_nodes[n];
    const bool invalidated = node.op->isInvalidated();
    if (node.pipeline == nullptr) {
      os << indent << "op" << n << " [label=\"" << label(*node.op, invalidated) << "\"";
      if (invalidated) os << ", style=dashed, color=red";
      os << "];\n";
      return;
    }
    os << indent << "subgraph cluster_op" << n << " {\n";
    os << indent << "  label=\"" << label(*node.op, invalidated) << "\";\n";
    if (invalidated) os << indent << "  style=dashed;\n" << indent << "  color=red;\n";
    for (std::size_t inner = 0; inner < m_nodes.size(); ++inner) {
      if (m_nodes[inner].container == n) writeNode(os, inner, indent + "  ");
    }
    os << indent << "}\n";
  }

  static std::string escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
      if (c == '"' || c == '\\') {
        escaped += '\\';
        escaped += c;
      } else if (c == '\n') {
        escaped += "\\n";
      } else if (static_cast<unsigned char>(c) < 0x20) {
        escaped += ' ';  // other control characters would break the line or the label
      } else {
        escaped += c;
      }
    }
    return escaped;
  }

  static std::string label(const ProcessObject& op, bool invalidated) {
    std::string text = escape(op.getName());
    for (const Parameter* parameter : op.getParameters()) {
      if (parameter == nullptr) continue;
      text += "\\n" + escape(parameter->getIDName() + "=" + parameter->getValue());
    }
    if (invalidated) text += "\\n(invalidated)";
    return text;
  }

  std::vector<Node> m_nodes;
  std::vector<Edge> m_edges;
  std::map<const ProcessObject*, std::size_t> m_index;
};

}  // namespace

void writeGraphviz(std::ostream& os, const std::vector<ProcessObject*>& roots) {
  Graph(roots).write(os);
}

void writeGraphviz(std::ostream& os, ProcessObject& root) {
  writeGraphviz(os, std::vector<ProcessObject*>{&root});
}

}  // namespace vorn

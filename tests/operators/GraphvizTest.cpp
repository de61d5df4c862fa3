#include "vorn/operators/Graphviz.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include <boost/make_shared.hpp>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/BasePipeline.hpp"
#include "vorn/Parameter.hpp"

namespace {

std::string dot(const std::vector<vorn::ProcessObject*>& roots) {
  std::ostringstream os;
  vorn::writeGraphviz(os, roots);
  return os.str();
}

// source -> [smooth: blur -> sharpen] -> sink input 0, and source -> sink input 1.
class GraphvizChain : public ::testing::Test {
 protected:
  GraphvizChain() {
    source.addParameter(new vorn::Parameter("file", "in.png"));
    blur->addParameter(new vorn::Parameter("sigma", "2"));
    smooth.setName("smooth");
    smooth.addInput("ImageObject");
    smooth.addOutput("ImageObject");
    smooth.registerOperator(blur);
    smooth.registerOperator(sharpen);
    blur->setInputPort(0, smooth.getInputPort(0));
    connect(*blur, *sharpen);
    static_cast<vorn::PortProxy*>(smooth.getOutputPort(0))->connectTo(sharpen->getOutputPort(0));
    smooth.setInputPort(0, source.getOutputPort(0));
    sink.setInputPort(0, smooth.getOutputPort(0));
    connect(source, sink, 1);
  }

  CoutCapture capture;  // first member: it outlives the operators' farewell lines
  LoggingOperator source{"source", nullptr, 0, 1};
  boost::shared_ptr<LoggingOperator> blur = boost::make_shared<LoggingOperator>("blur", nullptr);
  boost::shared_ptr<LoggingOperator> sharpen =
      boost::make_shared<LoggingOperator>("sharpen", nullptr);
  vorn::BasePipeline smooth;
  LoggingOperator sink{"sink", nullptr, 2, 0};
};

TEST_F(GraphvizChain, DrawsTheCompositeAsAClusterWithEdgesAndParameters) {
  sink.update();
  const std::string expected =
      "digraph vorn {\n"
      "  node [shape=box];\n"
      "  op0 [label=\"sink\"];\n"
      "  op2 [label=\"source\\nfile=in.png\"];\n"
      "  subgraph cluster_op3 {\n"
      "    label=\"smooth\";\n"
      "    op1 [label=\"sharpen\"];\n"
      "    op4 [label=\"blur\\nsigma=2\"];\n"
      "  }\n"
      "  op1 -> op0 [label=\"0\"];\n"
      "  op2 -> op0 [label=\"1\"];\n"
      "  op4 -> op1;\n"
      "  op2 -> op4;\n"
      "}\n";
  EXPECT_EQ(dot({&sink}), expected);
  EXPECT_EQ(dot({&sink}), expected) << "the same graph gives the same text";
  // Another root order numbers the nodes differently, but still covers the same graph.
  const std::string fromSmooth = dot({&smooth, nullptr, &sink});
  EXPECT_NE(fromSmooth.find("subgraph cluster_op0 {"), std::string::npos) << fromSmooth;
  EXPECT_EQ(fromSmooth.find("0x"), std::string::npos) << "no addresses";
}

TEST_F(GraphvizChain, MarksInvalidatedOperatorsUntilTheyAreUpdated) {
  sink.update();
  source.setParameterValue("file", "other.png");
  const std::string stale = dot({&sink});
  EXPECT_NE(stale.find("op2 [label=\"source\\nfile=other.png\\n(invalidated)\", style=dashed, "
                       "color=red];"),
            std::string::npos)
      << stale;
  EXPECT_NE(stale.find("op4 [label=\"blur\\nsigma=2\\n(invalidated)\""), std::string::npos);
  EXPECT_NE(stale.find("label=\"smooth\\n(invalidated)\";\n    style=dashed;\n    color=red;"),
            std::string::npos)
      << stale;
  sink.update();
  const std::string fresh = dot({&sink});
  EXPECT_EQ(fresh.find("invalidated"), std::string::npos) << fresh;
  EXPECT_EQ(fresh.find("dashed"), std::string::npos);
}

TEST(Graphviz, NestsClustersAndEscapesLabels) {
  CoutCapture capture;
  vorn::BasePipeline outer;
  outer.setName("outer");
  auto inner = boost::make_shared<vorn::BasePipeline>();
  inner->setName("in\"ner");
  auto leaf = boost::make_shared<LoggingOperator>("leaf", nullptr, 0, 1);
  leaf->addParameter(new vorn::Parameter("text", "say \"hi\" \\ bye\nnow"));
  inner->registerOperator(leaf);
  outer.registerOperator(inner);
  const std::string text = dot({leaf.get()});
  for (const char* part :
       {"  subgraph cluster_op2 {\n    label=\"outer\\n(invalidated)\";\n    style=dashed;\n",
        "    subgraph cluster_op1 {\n      label=\"in\\\"ner\\n(invalidated)\";\n",
        "      op0 [label=\"leaf\\ntext=say \\\"hi\\\" \\\\ bye\\nnow\\n(invalidated)\", "
        "style=dashed, color=red];\n    }\n  }\n}\n"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  }
}

TEST(Graphviz, EndsOnCyclesOfOperatorsAndOfParents) {
  CoutCapture capture;
  LoggingOperator a("a", nullptr);
  LoggingOperator b("b", nullptr);
  connect(a, b);
  connect(b, a);
  const std::string loop = dot({&a});
  EXPECT_NE(loop.find("op1 -> op0;\n  op0 -> op1;\n}"), std::string::npos) << loop;

  // Parent pointers looping by hand: each pipeline is still drawn once.
  vorn::BasePipeline p;
  vorn::BasePipeline q;
  p.setParent(&q);
  q.setParent(&p);
  const std::string parents = dot({&p});
  EXPECT_NE(parents.find("subgraph cluster_op0"), std::string::npos) << parents;
  EXPECT_NE(parents.find("subgraph cluster_op1"), std::string::npos) << parents;
  p.setParent(nullptr);
  q.setParent(nullptr);
}

}  // namespace

#include "vorn/BasePipeline.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace {

using vorn::BasePipeline;
using vorn::ProcessObject;
using Roi = boost::shared_ptr<vorn::RoiObject const>;
using OpPtr = boost::shared_ptr<LoggingOperator>;

// Wires `inner` as a pipeline exposing `first`'s input and `last`'s output.
void expose(BasePipeline& pipeline, ProcessObject& first, ProcessObject& last) {
  pipeline.addInput("ImageObject");
  pipeline.addOutput("ImageObject");
  first.setInputPort(0, pipeline.getInputPort(0));
  static_cast<vorn::PortProxy*>(pipeline.getOutputPort(0))->connectTo(last.getOutputPort(0));
}

// The graph users build: source S -> pipeline P { X -> Y } -> reader D.
class PipelineTest : public ::testing::Test {
 protected:
  PipelineTest() {
    x->addParameter(new vorn::Parameter("level", "1"));
    y->addParameter(new vorn::Parameter("level", "1"));
    pipeline->setName("P");
    pipeline->registerOperator(x);
    pipeline->registerOperator(y);
    connect(*x, *y);
    expose(*pipeline, *x, *y);
    pipeline->setInputPort(0, source->getOutputPort(0));
    reader->setInputPort(0, pipeline->getOutputPort(0));
    out.take();
  }
  ~PipelineTest() override { vorn::Repercussion::setEnable(true); }

  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
  std::unique_ptr<LoggingOperator> source = std::make_unique<LoggingOperator>("S", &log, 0, 1);
  std::unique_ptr<BasePipeline> pipeline = std::make_unique<BasePipeline>();
  OpPtr x{new LoggingOperator("X", &log)};
  OpPtr y{new LoggingOperator("Y", &log)};
  std::unique_ptr<LoggingOperator> reader = std::make_unique<LoggingOperator>("D", &log);
};

// Tests a new pipeline's name and flags, and that updating one without outputs only clears its
// own flag.
TEST(BasePipeline, NewPipeline) {
  CoutCapture out;
  BasePipeline pipeline;
  EXPECT_EQ("No named pipeline", pipeline.getName());
  EXPECT_TRUE(pipeline.isComposite());
  EXPECT_FALSE(pipeline.isInvalidated());
  pipeline.update();
  pipeline.print();
  EXPECT_NE(std::string::npos, out.str().find(" Invalidated = 0\n"));
  EXPECT_EQ(0u, out.str().find("\nPIPELINE PORTS ...\n-------"));
}

// Tests an update through the pipeline, then a parameter change inside it recomputing only what
// depends on it.
TEST_F(PipelineTest, UpdatesThroughThePipelineAndOnlyWhatChanged) {
  reader->update();
  EXPECT_EQ((EventLog{"compute:S", "compute:X", "compute:Y", "compute:D"}), log);
  EXPECT_FALSE(pipeline->isInvalidated());
  log.clear();
  reader->update();
  EXPECT_TRUE(log.empty());

  y->setParameterValue("level", "2");
  EXPECT_TRUE(pipeline->isInvalidated());
  EXPECT_TRUE(reader->isInvalidated());  // left the pipeline through its output
  reader->update();
  EXPECT_EQ((EventLog{"compute:Y", "compute:D"}), log);
}

// Tests invalidation entering through the pipeline's input and leaving through its output: the
// pipeline's own observers hear of it through the operator's version.
TEST_F(PipelineTest, InvalidationCrossesThePipeline) {
  reader->update();
  for (ProcessObject* op :
       std::initializer_list<ProcessObject*>{pipeline.get(), x.get(), y.get(), reader.get()}) {
    op->attachObserver(&observer);
  }
  log.clear();
  source->setToInvalidated();
  EXPECT_EQ((EventLog{"invalidated:X", "invalidated:Y", "invalidated:P", "invalidated:D"}), log);

  reader->update();
  log.clear();
  pipeline->setToInvalidated();  // the override: inner readers of its inputs, not itself
  EXPECT_EQ((EventLog{"invalidated:X", "invalidated:Y", "invalidated:P", "invalidated:D"}), log);
}

// Tests the pipeline-wide region: the exact lines, the input operator's request, and the region
// travelling on to the next inner operator; the same region again writes no assignment.
TEST_F(PipelineTest, RegionReachesInputOperatorsAndTravelsOn) {
  Roi r(new vorn::BoxRoi);
  reader->update();
  out.take();
  pipeline->setRequestedRegionOfInterest(r);
  EXPECT_EQ(
      "In VORN::BasePipeline : ROI set to pipeline and appropriate children\n"
      "BasePipeline::assignRequestedROI to outport 0 of Operator X( considered as an input "
      "operator of the pipeline P )\n",
      out.take());
  EXPECT_TRUE(x->isInvalidated());
  reader->update();
  EXPECT_EQ(r, y->getOutputPort(0)->getData()->m_regionOfInterest);
  EXPECT_FALSE(y->getOutputPort(0)->getData()->m_requestedRegionOfInterest);
  EXPECT_FALSE(reader->getOutputPort(0)->getData()->m_regionOfInterest);  // outside: not passed

  out.take();
  pipeline->setRequestedRegionOfInterest(r);
  EXPECT_EQ("In VORN::BasePipeline : ROI set to pipeline and appropriate children\n", out.take());
}

// Tests the hand-down at registration: every output of a new operator, source operators on a
// later region, and nothing for an operator whose requests already match.
TEST_F(PipelineTest, RegistrationHandsTheRegionDown) {
  OpPtr plain(new LoggingOperator("plain", &log, 0, 1));
  plain->setToValidated();
  out.take();
  pipeline->registerOperator(plain);  // no region, no request: only the registration line
  EXPECT_EQ("In VORN::BasePipeline : ROI set to new operator plain\n", out.take());
  EXPECT_FALSE(plain->isInvalidated());

  Roi r(new vorn::BoxRoi);
  pipeline->setRequestedRegionOfInterest(r);
  EXPECT_EQ(r, plain->getOutputPort(0)->getData()->m_requestedRegionOfInterest);  // a source
  EXPECT_FALSE(y->getOutputPort(0)->getData()->m_requestedRegionOfInterest);

  OpPtr twoOutputs(new LoggingOperator("two", &log, 1, 2));
  out.take();
  pipeline->registerOperator(twoOutputs);
  EXPECT_EQ(
      "In VORN::BasePipeline : ROI set to new operator two\n"
      "BasePipeline::assignRequestedROI to outport 0 of Operator two( considered as an input "
      "operator of the pipeline P )\n"
      "BasePipeline::assignRequestedROI to outport 1 of Operator two( considered as an input "
      "operator of the pipeline P )\n",
      out.take());
  EXPECT_EQ(r, twoOutputs->getOutputPort(1)->getData()->m_regionOfInterest);
  EXPECT_EQ(pipeline.get(), twoOutputs->getParent());
}

// Tests the operator list: duplicates kept, first entry removed, own list only.
TEST_F(PipelineTest, OperatorList) {
  pipeline->registerOperator(x);
  EXPECT_EQ((std::vector<ProcessObject*>{x.get(), y.get(), x.get()}), pipeline->getOperators());
  pipeline->unRegisterOperator(x);
  EXPECT_EQ((std::vector<ProcessObject*>{y.get(), x.get()}), pipeline->getOperators());
  EXPECT_EQ(nullptr, x->getParent());

  BasePipeline outer;
  boost::shared_ptr<BasePipeline> nested(new BasePipeline);
  nested->registerOperator(x);
  outer.registerOperator(nested);
  EXPECT_TRUE(outer.isContainingProcessObject(nested.get()));
  EXPECT_FALSE(outer.isContainingProcessObject(boost::shared_ptr<const ProcessObject>(x)));
  nested->unRegisterOperator(x);
}

// Tests the refusals: empty operators, a pipeline inside itself, an output leading nowhere.
TEST(BasePipeline, Refusals) {
  CoutCapture out;
  boost::shared_ptr<BasePipeline> outer(new BasePipeline), inner(new BasePipeline);
  outer->registerOperator(inner);
  out.take();
  outer->registerOperator(boost::shared_ptr<ProcessObject>());
  outer->unRegisterOperator(boost::shared_ptr<ProcessObject>());
  outer->registerOperator(outer);
  inner->registerOperator(outer);
  outer->addOutput("ImageObject");
  outer->update();
  EXPECT_EQ(
      "BasePipeline::registerOperator empty operator refused\n"
      "BasePipeline::unRegisterOperator empty operator refused\n"
      "BasePipeline::registerOperator No named pipeline contains this pipeline : refused\n"
      "BasePipeline::registerOperator No named pipeline contains this pipeline : refused\n"
      "BasePipeline::update output port 0 of pipeline No named pipeline leads to no data\n",
      out.take());
  EXPECT_EQ(1u, outer->getOperators().size());
  EXPECT_TRUE(inner->getOperators().empty());
}

// Tests removePort: later ports move down, and a port the pipeline does not own is ignored.
TEST(BasePipeline, RemovePort) {
  CoutCapture quiet;  // the pipeline's destructor line
  BasePipeline pipeline;
  for (int i = 0; i < 3; ++i) pipeline.addInput("ImageObject");
  vorn::PortProxy* second = pipeline.getInputPort(1);
  vorn::PortProxy* third = pipeline.getInputPort(2);
  pipeline.removePort(pipeline.getInputPort(0));
  EXPECT_EQ(second, pipeline.getInputPort(0));
  EXPECT_EQ(third, pipeline.getInputPort(1));
  EXPECT_EQ(nullptr, pipeline.getInputPort(2));
  vorn::PortProxy stranger("ImageObject", nullptr);
  pipeline.removePort(&stranger);
  EXPECT_NE(nullptr, pipeline.getInputPort(1));
}

// Tests that with repercussion off the pipeline still connects but invalidates nothing.
TEST_F(PipelineTest, RepercussionOff) {
  reader->update();
  vorn::Repercussion::setEnable(false);
  LoggingOperator other("other", &log, 0, 1);
  pipeline->setInputPort(0, other.getOutputPort(0));
  EXPECT_TRUE(pipeline->getInputPort(0)->isConnectedTo(other.getOutputPort(0)));
  EXPECT_FALSE(pipeline->isInvalidated());
  vorn::Repercussion::setEnable(true);
  pipeline->setInputPort(0, source->getOutputPort(0));
}

// Tests nested pipelines: an outer pipeline holding an operator and a pipeline, updated,
// invalidated, printed and torn down.
TEST(BasePipeline, NestedPipelines) {
  CoutCapture out;
  EventLog log;
  LoggingOperator source("S", &log, 0, 1);
  {
    BasePipeline outer;
    outer.setName("outer");
    boost::shared_ptr<BasePipeline> inner(new BasePipeline);
    inner->setName("inner");
    OpPtr a(new LoggingOperator("A", &log)), b(new LoggingOperator("B", &log));
    inner->registerOperator(b);
    expose(*inner, *b, *b);
    outer.registerOperator(a);
    outer.registerOperator(inner);
    expose(outer, *a, *inner);
    connect(*a, *inner);
    outer.setInputPort(0, source.getOutputPort(0));
    LoggingOperator reader("D", &log);
    connect(outer, reader);

    reader.update();
    EXPECT_EQ((EventLog{"compute:S", "compute:A", "compute:B", "compute:D"}), log);
    EXPECT_FALSE(outer.isInvalidated());
    source.setToInvalidated();
    EXPECT_TRUE(inner->isInvalidated());
    EXPECT_TRUE(reader.isInvalidated());
    log.clear();
    reader.update();
    EXPECT_EQ((EventLog{"compute:S", "compute:A", "compute:B", "compute:D"}), log);

    out.take();
    outer.print();
    const std::string text = out.take();
    EXPECT_EQ(3u, [&] {
      std::size_t n = 0;
      for (auto at = text.find("*******PIPELINE OPERATOR"); at != std::string::npos;
           at = text.find("*******PIPELINE OPERATOR", at + 1)) {
        ++n;
      }
      return n;
    }());  // A and inner at the outer level, B inside inner
    EXPECT_NE(std::string::npos, text.find("   inner\n"));
  }
  EXPECT_EQ(0u, source.getOutputPort(0)->getNumberOfUse());
}

// Tests destruction with the pipeline first: inner operators go last registered first, each
// without parent by then; readers downstream end unconnected and invalidated.
TEST_F(PipelineTest, DestroyingThePipelineFirst) {
  class ParentAtDeath : public LoggingOperator {
   public:
    ParentAtDeath(const std::string& name, EventLog* log) : LoggingOperator(name, log) {}
    ~ParentAtDeath() override {
      record->push_back(getName() + (getParent() == nullptr ? ":no parent" : ":parent"));
    }
    EventLog* record = nullptr;
  };
  EventLog deaths;
  auto first = boost::shared_ptr<ParentAtDeath>(new ParentAtDeath("first", &log));
  auto second = boost::shared_ptr<ParentAtDeath>(new ParentAtDeath("second", &log));
  first->record = second->record = &deaths;
  pipeline->registerOperator(first);
  pipeline->registerOperator(second);
  first.reset();
  second.reset();
  x.reset();
  y.reset();
  reader->update();

  pipeline.reset();
  EXPECT_EQ((EventLog{"second:no parent", "first:no parent"}), deaths);
  EXPECT_TRUE(reader->isInvalidated());
  EXPECT_TRUE(reader->getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_EQ(0u, source->getOutputPort(0)->getNumberOfUse());
}

// Tests destruction with the pipeline going while a client still holds its inner operators:
// disconnecting its input invalidates them, and that comes back through the exposed output
// into the half-destroyed pipeline and on to the reader.
TEST_F(PipelineTest, DestroyingThePipelineWhileInnerOperatorsLive) {
  reader->update();
  pipeline.reset();
  EXPECT_TRUE(x->isInvalidated());
  EXPECT_EQ(nullptr, x->getParent());
  EXPECT_TRUE(x->getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_TRUE(reader->isInvalidated());
}

// Tests destruction with an outer operator first: the source, then the reader, then the rest.
TEST_F(PipelineTest, DestroyingOuterOperatorsFirst) {
  reader->update();
  source.reset();
  EXPECT_TRUE(x->isInvalidated());
  EXPECT_TRUE(reader->isInvalidated());
  EXPECT_TRUE(pipeline->getInputPort(0)->isConnectedTo(nullptr));
  reader.reset();
  EXPECT_EQ(0u, pipeline->getOutputPort(0)->getNumberOfUse());
  x.reset();
  pipeline.reset();
  y.reset();
}

}  // namespace

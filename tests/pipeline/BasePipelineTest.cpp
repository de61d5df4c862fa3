#include "vorn/BasePipeline.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "CoutCapture.hpp"
#include "TestOperators.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/Parameter.hpp"

namespace {

using vorn::BasePipeline;
using vorn::ProcessObject;
using Roi = boost::shared_ptr<vorn::RoiObject const>;
using OpPtr = boost::shared_ptr<LoggingOperator>;

// Gives `pipeline` one input read by `first` and one output exposing `last`'s.
void expose(BasePipeline& pipeline, ProcessObject& first, ProcessObject& last) {
  pipeline.addInput("ImageObject");
  pipeline.addOutput("ImageObject");
  first.setInputPort(0, pipeline.getInputPort(0));
  static_cast<vorn::PortProxy*>(pipeline.getOutputPort(0))->connectTo(last.getOutputPort(0));
}

// Records, when destroyed, whether it still had a parent ("+") or not ("-").
struct Mortal : LoggingOperator {
  Mortal(const char* name, EventLog* log) : LoggingOperator(name, log) {}
  ~Mortal() override { m_log->push_back(getName() + (getParent() ? "+" : "-")); }
};

// The graph users build, updated once: source S -> pipeline P { X -> Y } -> reader D.
class PipelineTest : public ::testing::Test {
 protected:
  PipelineTest() {
    y->addParameter(new vorn::Parameter("level", "1"));
    pipeline->setName("P");
    pipeline->registerOperator(x);
    pipeline->registerOperator(y);
    connect(*x, *y);
    expose(*pipeline, *x, *y);
    pipeline->setInputPort(0, source->getOutputPort(0));
    reader->setInputPort(0, pipeline->getOutputPort(0));
    reader->update();
    log.clear();
    out.take();
  }
  CoutCapture out;
  EventLog log;
  RecordingObserver observer{&log};
  std::unique_ptr<LoggingOperator> source = std::make_unique<LoggingOperator>("S", &log, 0, 1);
  std::unique_ptr<BasePipeline> pipeline = std::make_unique<BasePipeline>();
  OpPtr x{new Mortal("X", &log)}, y{new Mortal("Y", &log)};
  std::unique_ptr<LoggingOperator> reader = std::make_unique<LoggingOperator>("D", &log);
};

// Tests invalidation crossing the pipeline both ways and an inner parameter change recomputing
// only what depends on it.
TEST_F(PipelineTest, InvalidationAndUpdateThroughThePipeline) {
  pipeline->attachObserver(&observer);
  x->attachObserver(&observer);
  reader->attachObserver(&observer);
  source->setToInvalidated();
  EXPECT_EQ((EventLog{"invalidated:X", "invalidated:P", "invalidated:D"}), log);
  reader->update();
  log.clear();
  y->setParameterValue("level", "2");
  EXPECT_TRUE(pipeline->isInvalidated());
  reader->update();
  // Updating through the pipeline's output validates Y, not the pipeline's own observers.
  EXPECT_EQ((EventLog{"invalidated:P", "invalidated:D", "compute:Y", "start:D", "compute:D",
                      "generated:D", "validated:D"}),
            log);
}

// Tests the pipeline-wide region: announced, requested on the input operator and every output of
// an operator registered later, travelling on to Y, not announced again.
TEST_F(PipelineTest, RegionIsHandedDown) {
  Roi r(new vorn::BoxRoi);
  pipeline->setRequestedRegionOfInterest(r);
  const std::string set = "In VORN::BasePipeline : ROI set to pipeline and appropriate children\n";
  const std::string assign = "BasePipeline::assignRequestedROI to outport ";
  const std::string as = "( considered as an input operator of the pipeline P )\n";
  EXPECT_EQ(set + assign + "0 of Operator X" + as, out.take());
  reader->update();
  EXPECT_EQ(r, y->getOutputPort(0)->getData()->m_regionOfInterest);
  EXPECT_FALSE(reader->getOutputPort(0)->getData()->m_regionOfInterest);  // not out of P

  out.take();
  OpPtr two(new LoggingOperator("two", &log, 0, 2));
  pipeline->registerOperator(two);
  pipeline->setRequestedRegionOfInterest(r);
  EXPECT_EQ("In VORN::BasePipeline : ROI set to new operator two\n" + assign + "0 of Operator two" +
                as + assign + "1 of Operator two" + as + set,
            out.take());
  EXPECT_EQ(r, two->getOutputPort(1)->getData()->m_requestedRegionOfInterest);
  Roi other(new vorn::BoxRoi);  // a source operator gets each new region too
  pipeline->setRequestedRegionOfInterest(other);
  EXPECT_EQ(other, two->getOutputPort(1)->getData()->m_requestedRegionOfInterest);
}

// Tests the operator list (duplicates kept, the first removed, own list only) and refusals.
TEST_F(PipelineTest, OperatorsAndRefusals) {
  pipeline->registerOperator(x);
  pipeline->unRegisterOperator(x);
  EXPECT_EQ((std::vector<ProcessObject*>{y.get(), x.get()}), pipeline->getOperators());
  boost::shared_ptr<BasePipeline> nested(new BasePipeline);
  pipeline->registerOperator(nested);
  OpPtr z(new LoggingOperator("Z", &log));
  nested->registerOperator(z);
  EXPECT_FALSE(pipeline->isContainingProcessObject(boost::shared_ptr<const ProcessObject>(z)));
  out.take();
  pipeline->registerOperator(OpPtr());
  pipeline->registerOperator(nested);
  pipeline->unRegisterOperator(nested);  // still held once, though without parent now
  nested->registerOperator(boost::shared_ptr<ProcessObject>(pipeline.get(), [](ProcessObject*) {}));
  static_cast<vorn::PortProxy*>(pipeline->getOutputPort(0))->disconnect();
  pipeline->update();
  EXPECT_EQ(
      "BasePipeline::registerOperator empty operator refused\n"
      "In VORN::BasePipeline : ROI set to new operator No named pipeline\n"
      "BasePipeline::registerOperator P contains this pipeline : refused\n"
      "BasePipeline::update output port 0 of pipeline P leads to no data\n",
      out.take());
  pipeline->addInput("ImageObject");
  vorn::PortProxy* second = pipeline->getInputPort(1);
  pipeline->removePort(pipeline->getInputPort(0));
  EXPECT_EQ(second, pipeline->getInputPort(0));
  pipeline->removePort(pipeline->getOutputPort(0));
  EXPECT_EQ(nullptr, pipeline->getOutputPort(0));
}

// Tests the printed form (the pipeline as an operator, then each inner operator) and that
// update() computes what feeds its output and clears the flag registering set.
TEST_F(PipelineTest, PrintedFormAndOwnFlag) {
  const std::string head =
      "\nPIPELINE PORTS ...\n-------------------------------\nOperator : addr " +
      addressText(pipeline.get()) + "   P\n Invalidated = ";
  const std::string printed = printedBy([&] { pipeline->print(); });
  EXPECT_EQ(0u, printed.find(head + "1\n"));
  const std::string inner =
      "\n*******PIPELINE OPERATOR*********\n-------------------------------\n";
  const std::size_t xAt = printed.find(inner + "Operator : addr " + addressText(x.get()));
  const std::size_t yAt = printed.find(inner + "Operator : addr " + addressText(y.get()));
  EXPECT_LT(xAt, yAt);  // registration order
  EXPECT_NE(std::string::npos, yAt);
  source->setToInvalidated();
  pipeline->update();  // pulls its output: the operators inside, not the reader
  EXPECT_EQ((EventLog{"compute:S", "compute:X", "compute:Y"}), log);
  EXPECT_EQ(0u, printedBy([&] { pipeline->print(); }).find(head + "0\n"));
}

// Tests nested pipelines: updated and invalidated from outside, then torn down.
TEST(BasePipeline, NestedPipelines) {
  CoutCapture out;
  EventLog log;
  LoggingOperator source("S", &log, 0, 1);
  {
    BasePipeline outer;
    boost::shared_ptr<BasePipeline> inner(new BasePipeline);
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
    source.setToInvalidated();
    EXPECT_TRUE(inner->isInvalidated());
    reader.update();
    EXPECT_EQ(2, b->computations);
    EXPECT_EQ(2, reader.computations);
  }
  EXPECT_EQ(0u, source.getOutputPort(0)->getNumberOfUse());
}

// Tests that a nested pipeline's invalidation spares its parent: the outer one exposes the inner
// one's input as its output; the operator feeding both stays validated.
TEST(BasePipeline, NestedInvalidationSparesTheParent) {
  CoutCapture out;
  EventLog log;
  BasePipeline outer;
  boost::shared_ptr<BasePipeline> inner(new BasePipeline);
  OpPtr a(new LoggingOperator("A", &log)), b(new LoggingOperator("B", &log));
  outer.registerOperator(a);
  outer.registerOperator(inner);
  inner->registerOperator(b);
  outer.addInput("ImageObject");
  outer.addOutput("ImageObject");
  inner->addInput("ImageObject");
  a->setInputPort(0, outer.getInputPort(0));
  inner->setInputPort(0, a->getOutputPort(0));
  b->setInputPort(0, inner->getInputPort(0));
  static_cast<vorn::PortProxy*>(outer.getOutputPort(0))->connectTo(inner->getInputPort(0));
  a->setToValidated();
  b->setToValidated();
  inner->setToInvalidated();
  EXPECT_TRUE(b->isInvalidated());
  EXPECT_FALSE(a->isInvalidated());
}

// Tests pipelines whose input ports read each other's: a walk leading back to its pipeline
// without marking any operator stops; having marked one, it runs again, nested.
TEST(BasePipeline, WalksLeadingBackToTheirPipeline) {
  CoutCapture out;
  EventLog log;
  RecordingObserver observer(&log);
  BasePipeline a, b;
  OpPtr x(new LoggingOperator("X", &log));
  b.registerOperator(x);
  for (BasePipeline* pipeline : {&a, &b}) {
    pipeline->addInput("ImageObject");
    pipeline->addInput("ImageObject");
  }
  b.getInputPort(0)->connectTo(a.getInputPort(0));
  a.getInputPort(1)->connectTo(b.getInputPort(1));
  x->setInputPort(0, b.getInputPort(1));
  x->setToValidated();
  a.setToInvalidated();
  EXPECT_TRUE(x->isInvalidated());

  // Q { first, second } reads R's input, which reads first's output; R { z } reads it too.
  BasePipeline q, r;
  q.addInput("ImageObject");
  OpPtr first(new LoggingOperator("", &log)), second(new LoggingOperator("", &log)),
      z(new LoggingOperator("Z", &log));
  for (const OpPtr& op : {first, second}) {
    q.registerOperator(op);
    op->setInputPort(0, q.getInputPort(0));
  }
  if (second->getInputPort(0) < first->getInputPort(0)) std::swap(first, second);
  first->setName("first");
  second->setName("second");
  r.addInput("ImageObject");
  r.registerOperator(z);
  z->setInputPort(0, r.getInputPort(0));
  r.setInputPort(0, first->getOutputPort(0));
  q.setInputPort(0, r.getInputPort(0));
  for (const OpPtr& op : {first, second, z}) {
    op->setToValidated();
    op->attachObserver(&observer);
  }
  log.clear();
  q.setToInvalidated();
  // Q's walk goes first -> R -> Q again, which (first being marked) walks on to second at once
  // if R reaches Q's input before z's.
  const bool qFirst = q.getInputPort(0) < z->getInputPort(0);
  const EventLog nested{"invalidated:first", "invalidated:second", "invalidated:Z"};
  const EventLog after{"invalidated:first", "invalidated:Z", "invalidated:second"};
  EXPECT_EQ(qFirst ? nested : after, log);
}

// Tests destroying the pipeline first: operators it alone owns go last registered first, without
// parent by then; the reader ends unconnected and invalidated.
TEST_F(PipelineTest, DestroyingThePipelineFirst) {
  x.reset();
  y.reset();
  pipeline.reset();
  EXPECT_EQ((EventLog{"Y-", "X-"}), log);
  EXPECT_TRUE(reader->isInvalidated());
  EXPECT_TRUE(reader->getInputPort(0)->isConnectedTo(nullptr));
  EXPECT_EQ(0u, source->getOutputPort(0)->getNumberOfUse());
}

// Tests destroying the pipeline while its operators live: the invalidation comes back through
// the exposed output into the half-destroyed pipeline and on to the reader.
TEST_F(PipelineTest, DestroyingThePipelineWhileInnerOperatorsLive) {
  pipeline.reset();
  EXPECT_TRUE(x->isInvalidated());
  EXPECT_TRUE(reader->isInvalidated());
}

// Tests destroying the outer operators first, then the rest.
TEST_F(PipelineTest, DestroyingOuterOperatorsFirst) {
  source.reset();
  EXPECT_TRUE(reader->isInvalidated());
  reader.reset();
  EXPECT_EQ(0u, pipeline->getOutputPort(0)->getNumberOfUse());
  x.reset();
  pipeline.reset();
}

}  // namespace

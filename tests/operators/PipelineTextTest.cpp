#include "vorn/operators/PipelineText.hpp"

#include <gtest/gtest.h>

#include <ios>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "OperatorTestSupport.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/OperatorCatalog.hpp"

namespace {

using vorn::ProcessObject;
using vorn::TextPipeline;

std::vector<std::string> namesOf(const std::vector<ProcessObject*>& ops) {
  std::vector<std::string> names;
  for (const ProcessObject* op : ops) names.push_back(op->getName());
  return names;
}

bool reads(ProcessObject* reader, unsigned int input, ProcessObject* source) {
  return reader->getInputPort(input)->isConnectedTo(source->getOutputPort(0));
}

TEST(PipelineText, BuildsTheExampleGraph) {
  CoutCapture capture;
  const auto pipeline = TextPipeline::build(
      "read file=in.png as=src ! gaussian sigma=2 ! threshold lower=120 as=m ; "
      "@src ! mask in1=m ! write file=out.png");
  ASSERT_EQ(namesOf(pipeline->operators()),
            (std::vector<std::string>{"src", "gaussian", "m", "mask", "write"}));
  const auto op = [&pipeline](const std::string& name) { return pipeline->find(name); };
  EXPECT_TRUE(dynamic_cast<vorn::ImageFileReader*>(op("src")));
  EXPECT_TRUE(dynamic_cast<vorn::MaskOperator*>(op("mask")));
  EXPECT_TRUE(reads(op("gaussian"), 0, op("src")) && reads(op("m"), 0, op("gaussian")) &&
              reads(op("mask"), 0, op("src")) && reads(op("mask"), 1, op("m")) &&
              reads(op("write"), 0, op("mask")));
  EXPECT_EQ(op("src")->getParameterValue("file"), "in.png");
  EXPECT_EQ(op("gaussian")->getParameterValue("sigma"), "2");
  EXPECT_EQ(op("m")->getParameterValue("lower"), "120");
  EXPECT_EQ(op("m")->getParameterValue("upper"), "") << "untouched parameters keep their default";
  EXPECT_EQ(namesOf(pipeline->sinks()), std::vector<std::string>{"write"});
  EXPECT_TRUE(dynamic_cast<vorn::ImageFileWriter*>(op("write"))->getDeferredCommit());
  EXPECT_EQ(pipeline->find("nobody"), nullptr);
}

TEST(PipelineText, NamesSinksQuotesForwardLabelsAndRegions) {
  CoutCapture capture;
  // A label may take a command's name; the unlabelled stages then number themselves past it.
  auto pipeline = TextPipeline::build("read file=a as=gaussian ! gaussian ! gaussian");
  EXPECT_EQ(namesOf(pipeline->operators()),
            (std::vector<std::string>{"gaussian", "gaussian#2", "gaussian#3"}));
  EXPECT_EQ(namesOf(pipeline->sinks()), std::vector<std::string>{"gaussian#3"});

  // Every unread output is a sink, in order of appearance; a label used later is fine.
  pipeline = TextPipeline::build(
      "@s ! mask in1=t ! write file=o.png ; read file=a as=s ! stats ; @s ! threshold as=t");
  EXPECT_EQ(namesOf(pipeline->sinks()), (std::vector<std::string>{"write", "stats"}));
  EXPECT_TRUE(reads(pipeline->find("mask"), 0, pipeline->find("s")));

  // Quotes keep blanks and separators; separators may touch words.
  pipeline = TextPipeline::build("read file=\"my scan!.png\" as=a;@a!write file='o u;t.png'");
  EXPECT_EQ(pipeline->find("a")->getParameterValue("file"), "my scan!.png");
  EXPECT_EQ(pipeline->find("write")->getParameterValue("file"), "o u;t.png");

  pipeline = TextPipeline::build("read file=a ! gaussian roi=10,20:64,32");
  const auto roi = boost::dynamic_pointer_cast<const vorn::BoxRoi>(
      pipeline->find("gaussian")->getOutputPort(0)->getData()->m_requestedRegionOfInterest);
  ASSERT_TRUE(roi);
  const vorn::Box& box = roi->getBox();
  ASSERT_EQ(box.m_dimension, 2u);
  EXPECT_EQ(box.m_start[0], 10);
  EXPECT_EQ(box.m_start[1], 20);
  EXPECT_EQ(box.m_size[0], 64u);
  EXPECT_EQ(box.m_size[1], 32u);
}

// Each malformed text, and words its message must hold to point at the culprit.
const std::vector<std::pair<std::string, std::string>> kMalformed = {
    {"", "empty pipeline"},
    {" \t\n ", "empty pipeline"},
    {"read file=a ! blur", "stage 2: unknown operator 'blur'"},
    {"read file=a ! gaussian sigm=2", "stage 2 (gaussian): unknown parameter 'sigm'"},
    {"read file=a ! mask level=2", "unknown parameter 'level' (it takes threads)"},
    {"read file=a ! gaussian sigma=1 sigma=2", "stage 2 (gaussian): 'sigma' given twice"},
    {"read file=a as=x as=y", "'as' given twice"},
    {"read file=a ! mask ! write file=o", "stage 2 (mask): input 1 is not fed"},
    {"gaussian sigma=2", "stage 1 (gaussian): input 0 is not fed"},
    {"read file=a ! read file=b", "stage 2 (read): takes no input, but follows stage 1"},
    {"read file=a as=s ! gaussian in1=s", "stage 2 (gaussian): no input 1"},
    {"read file=a as=s ; @s ! mask in0=s", "in0 is not allowed"},
    {"read file=a ! mask in1=nowhere", "stage 2 (mask): unknown label 'nowhere'"},
    {"@nowhere ! stats", "stage 1 (stats): unknown label 'nowhere'"},
    {"read file=a as=x ; read file=b as=x", "label 'x' defined twice"},
    {"@b ! gaussian as=a ; @a ! gaussian as=b", "cycle through labels: a -> b -> a"},
    {"read file=a as=s ; @s ! mask in1=me as=me", "cycle through labels: me -> me"},
    {"read file=a ! ! write file=o", "empty stage before '!' at character 15"},
    {"; read file=a", "empty stage before ';' at character 1"},
    {"read file=a !", "empty stage after '!' at the end"},
    {"read file=a ! gaussian roi=1,2:3", "stage 2 (gaussian): malformed roi '1,2:3'"},
    {"read file=a ! gaussian roi=1:0", "malformed roi '1:0'"},
    {"read file=a ! gaussian roi=-1:4", "malformed roi '-1:4'"},
    {"read file=a ! gaussian roi=x:4", "malformed roi 'x:4'"},
    {"read file=a ! gaussian roi=4", "malformed roi '4'"},
    {"read file=a ! write file=o roi=0:4", "stage 2 (write): roi needs an output"},
    {"read file=a ! write file=o as=w ; @w ! stats", "would read stage 2 (write)"},
    {"read file=a as=b/c", "bad label 'b/c'"},
    {"read file=a ! gaussian 2", "expected key=value, got '2' at character 24"},
    {"read file=\"a", "unterminated double quote at character 11"},
    {"read file=a ! @s ! stats", "'@s' at character 15 can only start a chain"},
    {"read file=a as=s ; @s stats", "'@s' at character 20 must be followed by '!'"},
    {"read file=a as=s ; @s", "must be followed by '!'"},
};

TEST(PipelineText, RefusesMalformedTextsNamingTheCulprit) {
  CoutCapture capture;
  for (const auto& [text, culprit] : kMalformed) {
    SCOPED_TRACE(text);
    expectThrow<vorn::PipelineTextError>([&text = text] { TextPipeline::build(text); }, {culprit});
  }
  std::string longest = "read file=a";
  for (std::size_t i = 0; i < TextPipeline::kMaxStages; ++i) longest += " ! stats";
  EXPECT_THROW(TextPipeline::build(longest), std::invalid_argument);
}

// Open inputs are left for the caller, in order of appearance; the rest is checked as usual.
TEST(PipelineText, BuildOpenLeavesUnfedInputsToTheCaller) {
  CoutCapture capture;
  const auto pipeline = TextPipeline::buildOpen("gaussian as=g ! mask ; @g ! stats as=s");
  const auto op = [&pipeline](const std::string& name) { return pipeline->find(name); };
  using Input = std::pair<ProcessObject*, unsigned int>;
  EXPECT_EQ(pipeline->openInputs(), (std::vector<Input>{{op("g"), 0}, {op("mask"), 1}}));
  EXPECT_EQ(pipeline->commands(), (std::vector<std::string>{"gaussian", "mask", "stats"}));
  EXPECT_TRUE(reads(op("mask"), 0, op("g")) && reads(op("s"), 0, op("g")));
  EXPECT_TRUE(TextPipeline::build("read file=a ! gaussian")->openInputs().empty());
  expectThrow<vorn::PipelineTextError>([] { TextPipeline::buildOpen("gaussian ! nosuch"); },
                                       {"unknown operator 'nosuch'"});
  expectThrow<vorn::PipelineTextError>([] { TextPipeline::buildOpen("mask in1=x"); },
                                       {"unknown label 'x'"});
}

// Writers keep their files pending until every sink is done, then all commit or none does.
TEST(PipelineText, RunCommitsAllWritersOrNone) {
  CoutCapture capture;
  TempFolder folder;
  const std::string in = folder.file("in.png");
  vorn::writeImageFile(*makeImage<unsigned char>({3, 3}, {7}), in);
  const std::string writeA = " ! write file=" + folder.file("a.png");
  const std::string writeB = " ; read file=" + in + " ! write file=" + folder.file("b.png");
  auto pipeline = TextPipeline::build("read file=" + in + writeA + " ; read file=" +
                                      folder.file("missing.png") + " ! stats" + writeB);
  try {
    pipeline->run();
    ADD_FAILURE() << "ran";
  } catch (const vorn::PipelineRunError& error) {
    EXPECT_EQ(std::string(error.what()),
              "read#2: " + folder.file("missing.png") + ": no such file");
  }
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"in.png"}) << "nothing left pending";
  TextPipeline::build("read file=" + in + writeA + writeB)->run();
  EXPECT_EQ(folder.entries(), (std::vector<std::string>{"a.png", "b.png", "in.png"}));
}

TEST(PipelineText, DescribesEngineFailuresOnOneLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"vorn::ProcessObject::update()\nThe operator g depends on its own output : processings "
       "cannot be performed\n",
       "The operator g depends on its own output : processings cannot be performed"},
      {"Operator g has caught an exception\ng: parameter 'sigma' is bad",
       "g: parameter 'sigma' is bad"},
      {"Operator g has caught an exception\nfile.png: no such file", "g: file.png: no such file"},
  };
  for (const auto& [what, description] : cases) {
    EXPECT_EQ(vorn::describeFailure(std::ios_base::failure(what)), description);
  }
  EXPECT_EQ(vorn::describeFailure(std::runtime_error("\n \n")), "unknown failure");
}

// The catalog describes the operators as they are really built.
TEST(OperatorCatalog, MatchesTheOperatorsItCreates) {
  CoutCapture capture;
  std::vector<std::string> names;
  for (const vorn::OperatorInfo& info : vorn::operatorCatalog()) {
    names.push_back(info.name);
    const boost::shared_ptr<ProcessObject> op = vorn::createOperator(info.name);
    ASSERT_TRUE(op) << info.name;
    EXPECT_EQ(op->getInputPort(info.inputs), nullptr) << info.name;
    EXPECT_TRUE(info.inputs == 0 || op->getInputPort(info.inputs - 1)) << info.name;
    EXPECT_EQ(op->getOutputPort(0) != nullptr, info.outputs == 1) << info.name;
    const std::vector<vorn::Parameter*>& parameters = op->getParameters();
    ASSERT_EQ(parameters.size(), info.parameters.size()) << info.name;
    for (std::size_t p = 0; p < parameters.size(); ++p) {
      EXPECT_EQ(parameters[p]->getIDName(), info.parameters[p].name) << info.name;
      EXPECT_EQ(parameters[p]->getValue(), info.parameters[p].defaultValue) << info.name;
    }
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "read",     "write",   "cast",    "gaussian", "threshold",  "mask",
                       "stats",    "math",    "math2",   "rescale",  "otsu",       "crop",
                       "pad",      "flip",    "permute", "resample", "labelstats", "median",
                       "gradient", "laplace", "erode",   "dilate",   "open",       "close",
                       "label",    "largest", "fill",    "distance"}));
  EXPECT_FALSE(vorn::createOperator("Gaussian"));
  EXPECT_EQ(vorn::findOperator(""), nullptr);
}

}  // namespace

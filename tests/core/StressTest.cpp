// Randomized stress test of the graph: random steps on operators and nested pipelines, with
// the graph's invariants checked after every step (see GraphOperations.hpp). Seeds are fixed,
// so a failure names the seed and the steps that led to it and reproduces exactly.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "CoutDiscard.hpp"
#include "GraphOperations.hpp"
#include "vorn/BasePipeline.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/Repercussion.hpp"

namespace {

constexpr int kRounds = 400;
constexpr int kStepsPerRound = 300;

// Runs one round from a fresh world; the first broken invariant, or empty. Adds the round's
// step counts to `tally`.
std::string runRound(std::uint32_t seed, bool wellFormed, std::map<std::string, unsigned>& tally) {
  graphops::Chooser chooser(seed);
  graphops::World world(chooser, wellFormed);
  for (int step = 0; step < kStepsPerRound; ++step) {
    world.step();
    const std::string broken = world.check();
    if (!broken.empty()) return "step " + std::to_string(step) + ": " + broken;
  }
  for (const auto& entry : world.tally()) tally[entry.first] += entry.second;
  return std::string();
}

// A run that stopped doing real work (every update failing, nothing registered) would pass
// while testing nothing.
void expectRealWork(std::map<std::string, unsigned>& tally) {
  EXPECT_GT(tally["updated"], kRounds * 10u);
  EXPECT_GT(tally["failed"], kRounds * 5u);
  EXPECT_GT(tally["register"], kRounds * 3u);
  EXPECT_GT(tally["drop"], kRounds * 3u);
}

// Tests wiring that follows the pipeline rules: the structural invariants, and that a
// validated operator always reads up-to-date data.
TEST(StressTest, WellFormedGraphsKeepEveryInvariant) {
  CoutDiscard silence;
  std::map<std::string, unsigned> tally;
  for (std::uint32_t seed = 1; seed <= kRounds; ++seed) {
    const std::string broken = runRound(seed, true, tally);
    ASSERT_TRUE(broken.empty()) << "seed " << seed << ", " << broken;
  }
  expectRealWork(tally);
  EXPECT_TRUE(vorn::Repercussion::isEnable());
}

// Tests any wiring the API accepts (ports of other scopes, operators registered twice or
// moved while connected): nothing crashes, leaks or dangles.
TEST(StressTest, WildGraphsKeepTheStructuralInvariants) {
  CoutDiscard silence;
  std::map<std::string, unsigned> tally;
  for (std::uint32_t seed = 1001; seed <= 1000 + kRounds; ++seed) {
    const std::string broken = runRound(seed, false, tally);
    ASSERT_TRUE(broken.empty()) << "seed " << seed << ", " << broken;
  }
  expectRealWork(tally);
}

// ---- findings the stress test ran into, kept as reproducers ----

// A pass-through pipeline (its output reads its own input): a change upstream must invalidate
// what reads the pipeline's output, so that updating it recomputes it.
TEST(StressFindings, PassThroughPipelinePassesInvalidationOn) {
  CoutDiscard silence;
  graphops::StressOperator source("source", 0, 1), reader("reader", 1, 0);
  vorn::BasePipeline pipeline;
  pipeline.addInput("ImageObject");
  pipeline.addOutput("ImageObject");
  static_cast<vorn::PortProxy*>(pipeline.getOutputPort(0))->connectTo(pipeline.getInputPort(0));
  pipeline.setInputPort(0, source.getOutputPort(0));
  reader.setInputPort(0, pipeline.getOutputPort(0));
  reader.update();
  source.setParameterValue("size", "2");
  EXPECT_TRUE(reader.isInvalidated());
  reader.update();
  EXPECT_FALSE(reader.isInvalidated());
}

}  // namespace

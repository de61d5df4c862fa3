// Chains far longer than the stack could recurse over: invalidation and destruction must not
// recurse with the length of a chain, and update() must refuse cleanly before the stack runs out.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <functional>
#include <ios>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CoutCapture.hpp"
#include "CoutDiscard.hpp"
#include "TestOperators.hpp"
#include "vorn/BasePipeline.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"

namespace {

// The sanitizer build is a Debug build, some twenty times slower.
#ifdef NDEBUG
constexpr std::size_t kLength = 1000000;
#else
constexpr std::size_t kLength = 100000;
#endif

using Chain = std::vector<std::unique_ptr<LoggingOperator>>;

Chain makeChain(std::size_t length) {
  Chain chain;
  chain.reserve(length);
  chain.push_back(std::make_unique<LoggingOperator>("0", nullptr, 0, 1));
  for (std::size_t i = 1; i < length; ++i) {
    chain.push_back(std::make_unique<LoggingOperator>(std::to_string(i), nullptr));
    connect(*chain[i - 1], *chain[i]);
  }
  return chain;
}

// Updates the tail. When update() refuses, checks that the refusal names an operator of the chain
// and changed nothing, then updates again in parts half as long as the depth it reached.
// Returns the number of operators the first call could reach (the whole chain if it worked).
std::size_t updateInParts(Chain& chain) {
  const int before = chain.front()->computations;
  const std::string message = thrownBy<std::ios_base::failure>([&] { chain.back()->update(); });
  if (message == "nothing thrown") return chain.size();
  const std::string head = "vorn::ProcessObject::update()\nThe chain upstream of the operator ";
  const std::size_t stopped = std::stoul(message.substr(head.size()));
  EXPECT_EQ(head + std::to_string(stopped) + " is too deep : update it in parts\n", message);
  EXPECT_EQ(before, chain.front()->computations);
  for (std::size_t i : {std::size_t{0}, stopped, chain.size() - 1}) {
    EXPECT_FALSE(chain[i]->isUpdating()) << i;
    EXPECT_TRUE(chain[i]->isInvalidated()) << i;
  }
  const std::size_t reached = chain.size() - stopped;
  for (std::size_t i = 0; i < chain.size(); i += reached / 2) chain[i]->update();
  chain.back()->update();
  return reached;
}

template <class Ops>
bool allInvalidated(const Ops& ops, long from = 0) {
  return std::all_of(ops.begin() + from, ops.end(),
                     [](const auto& op) { return op->isInvalidated(); });
}

// Computed `times` times each and validated.
void expectComputed(const Chain& chain, int times) {
  const auto wrong = std::find_if(chain.begin(), chain.end(), [times](const auto& op) {
    return op->computations != times || op->isInvalidated();
  });
  EXPECT_TRUE(wrong == chain.end()) << "operator " << (*wrong)->getName();
}

enum class End { Head, Tail };

class DeepChainTest : public ::testing::TestWithParam<End> {
 protected:
  CoutDiscard silence;  // a million timing lines
};

// Tests a chain of a million operators: updated (in parts if refused), invalidated from its
// head, updated again, destroyed from one end (from the head, invalidating the rest).
TEST_P(DeepChainTest, UpdateInvalidateDestroy) {
  Chain chain = makeChain(kLength);
  const std::size_t reached = updateInParts(chain);
  RecordProperty("operators_reached_by_one_update", std::to_string(reached));
  expectComputed(chain, 1);

  chain.front()->setToInvalidated();
  EXPECT_TRUE(allInvalidated(chain));
  updateInParts(chain);
  expectComputed(chain, 2);

  LoggingOperator* const second = chain[1].get();
  if (GetParam() == End::Head) {
    chain.front().reset();
    EXPECT_TRUE(second->isInvalidated());
    EXPECT_TRUE(chain.back()->isInvalidated());
    for (auto& op : chain) op.reset();
  } else {
    while (!chain.empty()) chain.pop_back();
  }
}

INSTANTIATE_TEST_SUITE_P(FromEitherEnd, DeepChainTest, ::testing::Values(End::Head, End::Tail),
                         [](const auto& end) { return end.param == End::Head ? "Head" : "Tail"; });

// Runs `work` on a thread of its own with a stack of `size` bytes.
void runOnThread(std::size_t size, std::function<void()> work) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, size));
  pthread_t thread;
  const auto body = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&thread, &attributes, body, &work));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// Tests a thread with a 512 KiB stack: update() measures that stack and refuses in time;
// invalidation queues its steps earlier.
TEST(DeepGraph, ThreadWithASmallStack) {
  CoutDiscard silence;
  Chain chain = makeChain(20000);
  std::size_t reached = 0;
  runOnThread(512 * 1024, [&] {
    reached = updateInParts(chain);
    chain.front()->setToInvalidated();
  });
  EXPECT_LT(reached, chain.size());
  EXPECT_GT(reached, 100u);
  EXPECT_EQ(1, chain.back()->computations);
  EXPECT_TRUE(chain.back()->isInvalidated());
}

// Tests that invalidation stays depth first in port address order past the depth where the walk
// stops recursing: a comb of 3000 operators compared with a plain recursive walk.
TEST(DeepGraph, InvalidationOrderStaysDepthFirst) {
  CoutDiscard silence;
  EventLog log;
  RecordingObserver observer(&log);
  std::vector<std::unique_ptr<LoggingOperator>> ops;
  ops.push_back(std::make_unique<LoggingOperator>("spine0", nullptr, 0, 1));
  LoggingOperator* spine = ops.front().get();
  for (int i = 1; i < 3000; ++i) {
    for (const char* kind : {"leaf", "spine"}) {
      ops.push_back(std::make_unique<LoggingOperator>(kind + std::to_string(i), nullptr));
      connect(*spine, *ops.back());
    }
    spine = ops.back().get();
  }
  for (auto& op : ops) {
    op->setToValidated();
    op->attachObserver(&observer);
  }
  EventLog expected;
  std::set<const vorn::ProcessObject*> seen;
  std::function<void(vorn::ProcessObject*)> visit = [&](vorn::ProcessObject* op) {
    seen.insert(op);
    expected.push_back("invalidated:" + op->getName());
    for (vorn::PortProxy* reader : op->getOutputPort(0)->getAttachedProxies()) {
      if (seen.count(reader->getParent()) == 0) visit(reader->getParent());
    }
  };
  visit(ops.front().get());
  ASSERT_EQ(ops.size(), expected.size());
  ops.front()->setToInvalidated();
  EXPECT_TRUE(expected == log);
}

// Tests a chain of 20,000 one-operator pipelines: invalidation crosses each both ways without
// recursing; destroying the first pipeline invalidates the whole validated chain.
TEST(DeepGraph, ChainOfPipelines) {
  CoutDiscard silence;
  LoggingOperator source("source", nullptr, 0, 1);
  std::vector<std::unique_ptr<vorn::BasePipeline>> pipelines;
  std::vector<boost::shared_ptr<LoggingOperator>> inner;
  const vorn::Port* previous = source.getOutputPort(0);
  for (int i = 0; i < 20000; ++i) {
    pipelines.push_back(std::make_unique<vorn::BasePipeline>());
    inner.emplace_back(new LoggingOperator(std::to_string(i), nullptr));
    vorn::BasePipeline& pipeline = *pipelines.back();
    pipeline.registerOperator(inner.back());
    pipeline.addInput("ImageObject");
    pipeline.addOutput("ImageObject");
    inner.back()->setInputPort(0, pipeline.getInputPort(0));
    static_cast<vorn::PortProxy*>(pipeline.getOutputPort(0))
        ->connectTo(inner.back()->getOutputPort(0));
    pipeline.setInputPort(0, previous);
    previous = pipeline.getOutputPort(0);
  }
  for (auto& op : inner) op->setToValidated();
  source.setToValidated();
  source.setToInvalidated();
  EXPECT_TRUE(allInvalidated(inner));
  for (auto& op : inner) op->setToValidated();
  pipelines.front().reset();
  EXPECT_TRUE(allInvalidated(inner, 1));
  EXPECT_EQ(nullptr, inner.front()->getParent());
  EXPECT_TRUE(inner.front()->getInputPort(0)->isConnectedTo(nullptr));
  while (!pipelines.empty()) pipelines.pop_back();
}

}  // namespace

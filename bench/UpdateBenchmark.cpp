// Cost of the update engine on linear chains of trivial operators: recomputing a whole stale
// chain, next to the fixed cost every computation pays by contract (two clock() reads and the
// timing line, written in the same pieces); updating an operator that is already up to date,
// which must not depend on the chain's length; and invalidating a chain from its head.
//
// The engine's lines go to a stream that formats them and throws them away, so the chain and
// the fixed-cost baseline pay for the same formatting.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include "CoutDiscard.hpp"

namespace {

class Pass : public vorn::ProcessObject {
 public:
  explicit Pass(bool source) {
    setName("pass");
    if (!source) addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override { benchmark::ClobberMemory(); }
};

// Updates deeper than the stack allows are refused: long chains are updated in parts.
constexpr std::size_t kUpdatePart = 10000;

class LinearChain {
 public:
  explicit LinearChain(std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
      m_ops.push_back(std::make_unique<Pass>(i == 0));
      if (i > 0) m_ops.back()->setInputPort(0, m_ops[i - 1]->getOutputPort(0));
    }
  }
  void touchSource() { m_ops.front()->setToInvalidated(); }
  void pullTail() { m_ops.back()->update(); }
  void updateInParts() {
    for (std::size_t i = kUpdatePart; i < m_ops.size(); i += kUpdatePart) m_ops[i]->update();
    pullTail();
  }
  void validateAll() {
    for (const auto& op : m_ops) op->setToValidated();
  }

 private:
  std::vector<std::unique_ptr<Pass>> m_ops;
};

// What every computation costs by contract, written as the engine writes it.
void mandatedFixedCost(const vorn::ProcessObject& op) {
  std::cout << "Processing with operator : " << op.getName()
            << " - adr : " << static_cast<const void*>(&op) << std::flush;
  const std::clock_t start = std::clock();
  benchmark::ClobberMemory();
  std::cout << ". Computation done in " << static_cast<double>(std::clock() - start) / 1000000.0
            << " s " << std::endl;
}

double nanosecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

// The engine's own cost per recomputed operator. clock() is a system call here whose cost drifts
// by hundreds of ns over seconds, so each iteration times the chain's recomputation and N fixed
// costs back to back, in alternating order; the counters give both per operator and the
// difference ("beyond_fixed_ns"). The invalidation that makes the chain stale is not timed.
void BM_RecomputeBeyondFixedCost(benchmark::State& state) {
  const CoutDiscard discard;
  const auto length = static_cast<std::size_t>(state.range(0));
  LinearChain chain(length);
  const Pass lone(true);
  double chainNs = 0;
  double fixedNs = 0;
  bool chainFirst = true;
  for (auto _ : state) {
    state.PauseTiming();
    chain.touchSource();
    state.ResumeTiming();
    for (int turn = 0; turn < 2; ++turn) {
      const auto start = std::chrono::steady_clock::now();
      if ((turn == 0) == chainFirst) {
        chain.pullTail();
        chainNs += nanosecondsSince(start);
      } else {
        for (std::size_t i = 0; i < length; ++i) mandatedFixedCost(lone);
        fixedNs += nanosecondsSince(start);
      }
    }
    chainFirst = !chainFirst;
  }
  const double computations = static_cast<double>(state.iterations()) * static_cast<double>(length);
  state.counters["fixed_ns"] = fixedNs / computations;
  state.counters["chain_ns"] = chainNs / computations;
  state.counters["beyond_fixed_ns"] = (chainNs - fixedNs) / computations;
}
BENCHMARK(BM_RecomputeBeyondFixedCost)->Arg(64)->Arg(4096);

void BM_UpdateUpToDateTail(benchmark::State& state) {
  const CoutDiscard discard;
  LinearChain chain(static_cast<std::size_t>(state.range(0)));
  chain.updateInParts();
  for (auto _ : state) chain.pullTail();  // nothing stale: a look at the tail's input only
}
BENCHMARK(BM_UpdateUpToDateTail)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

// Invalidating a validated chain from its head: every operator is reached once.
void BM_InvalidateValidatedChain(benchmark::State& state) {
  const CoutDiscard discard;
  LinearChain chain(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    chain.validateAll();
    state.ResumeTiming();
    chain.touchSource();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));  // operators reached per second
}
BENCHMARK(BM_InvalidateValidatedChain)->Arg(10)->Arg(1000);

// Invalidating a head that is already invalidated: its reader is too, so nothing more is walked.
void BM_InvalidateInvalidatedHead(benchmark::State& state) {
  const CoutDiscard discard;
  LinearChain chain(static_cast<std::size_t>(state.range(0)));
  chain.touchSource();
  for (auto _ : state) chain.touchSource();
}
BENCHMARK(BM_InvalidateInvalidatedHead)->Arg(10)->Arg(1000)->Arg(100000);

}  // namespace

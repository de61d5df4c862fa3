// Cost of the update engine on linear chains: pulling a whole stale chain, and updating an
// operator that is already up to date (which should not depend on the chain's length).
#include <benchmark/benchmark.h>

#include <iostream>
#include <memory>
#include <vector>

#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>

namespace {

class Pass : public vorn::ProcessObject {
 public:
  explicit Pass(bool source) {
    if (!source) addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override { benchmark::ClobberMemory(); }
};

class LinearChain {
 public:
  explicit LinearChain(int length) {
    for (int i = 0; i < length; ++i) {
      m_ops.push_back(std::make_unique<Pass>(i == 0));
      if (i > 0) m_ops.back()->setInputPort(0, m_ops[m_ops.size() - 2]->getOutputPort(0));
    }
  }
  void touchSource() { m_ops.front()->setToInvalidated(); }
  void pullTail() { m_ops.back()->update(); }

 private:
  std::vector<std::unique_ptr<Pass>> m_ops;
};

// Keeps the per-computation timing lines out of the benchmark's own output.
class QuietCout {
 public:
  QuietCout() : m_previous(std::cout.rdbuf(nullptr)) {}
  ~QuietCout() { std::cout.rdbuf(m_previous); }

 private:
  std::streambuf* m_previous;
};

void BM_UpdateStaleChain(benchmark::State& state) {
  QuietCout quiet;
  LinearChain chain(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    chain.touchSource();  // invalidates the whole chain, so every iteration recomputes it all
    chain.pullTail();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));  // operators run per second
}
BENCHMARK(BM_UpdateStaleChain)->RangeMultiplier(8)->Range(1, 4096);

void BM_UpdateUpToDateTail(benchmark::State& state) {
  QuietCout quiet;
  LinearChain chain(static_cast<int>(state.range(0)));
  chain.pullTail();
  for (auto _ : state) chain.pullTail();  // nothing stale: a walk over the tail's input only
}
BENCHMARK(BM_UpdateUpToDateTail)->RangeMultiplier(8)->Range(1, 4096);

}  // namespace

// Fuzz target: the fuzzer's bytes drive random steps on a graph of operators and pipelines
// (GraphOperations.hpp), its invariants checked after each step. The first byte chooses a
// well-formed or a wild world; every later byte is one choice of a step or of its arguments.
// A broken invariant aborts with its description, which libFuzzer reports as a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "CoutDiscard.hpp"
#include "GraphOperations.hpp"

namespace {

constexpr int kMaxSteps = 400;  // keeps one input fast whatever its length

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static CoutDiscard silence;
  if (size == 0) return 0;
  graphops::Chooser chooser(data + 1, size - 1);
  graphops::World world(chooser, (data[0] & 1) == 0);
  for (int step = 0; step < kMaxSteps && !chooser.exhausted(); ++step) {
    world.step();
    const std::string broken = world.check();
    if (!broken.empty()) {
      std::cerr << "broken invariant at step " << step << ": " << broken << std::endl;
      std::abort();
    }
  }
  return 0;
}

// Memory the engine takes beyond pixel buffers: the heap bytes of an operator (one input, one
// output port holding an image object) and of an image object with a 3-D buffer of one pixel,
// counted with mallinfo2 over a thousand of each. Counter: bytes per object. The time reported
// is that of building and destroying them.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <vector>

#include <vorn/ImageObject.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include "CoutDiscard.hpp"

namespace {

constexpr std::size_t kCount = 1000;

class Pass : public vorn::ProcessObject {
 public:
  Pass() {
    setName("pass");
    addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override {}
};

std::size_t heapInUse() { return mallinfo2().uordblks; }

template <class Make>
void countBytes(benchmark::State& state, Make make, std::size_t pixelBytes) {
  const CoutDiscard silent;  // destructors write their line
  double bytes = 0;
  for (auto _ : state) {
    const std::size_t before = heapInUse();
    std::vector<decltype(make())> objects;
    objects.reserve(kCount);
    const std::size_t reserved = heapInUse() - before;
    for (std::size_t i = 0; i < kCount; ++i) objects.push_back(make());
    bytes = static_cast<double>(heapInUse() - before - reserved) / kCount;
  }
  state.counters["bytes"] = bytes - static_cast<double>(pixelBytes);
}

void BM_BytesPerOperator(benchmark::State& state) {
  countBytes(
      state, [] { return std::make_unique<Pass>(); }, 0);
}
BENCHMARK(BM_BytesPerOperator)->Iterations(20);

void BM_BytesPerImageObject(benchmark::State& state) {
  const auto make = [] {
    vorn::Box box(3);
    for (unsigned axis = 0; axis < 3; ++axis) box.m_size[axis] = 1;
    auto image = std::make_unique<vorn::ImageObject>();
    image->Allocate(vorn::PixelType::FLOAT, box);
    return image;
  };
  countBytes(state, make, sizeof(float));
}
BENCHMARK(BM_BytesPerImageObject)->Iterations(20);

}  // namespace

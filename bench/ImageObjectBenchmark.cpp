// Cost of ImageObject::import, the deep copy between images, next to a plain memcpy of the same
// 64 MiB: import should add nothing measurable to its one block copy.
#include <benchmark/benchmark.h>

#include <cstring>

#include <vorn/ImageObject.hpp>

namespace {

constexpr unsigned long kPixels = 16ul << 20;  // 64 MiB of float

void allocate(vorn::ImageObject& image) {
  vorn::Box box(2);
  box.m_size[0] = 4096;
  box.m_size[1] = kPixels / 4096;
  image.Allocate(vorn::PixelType::FLOAT, box);
  std::memset(image.getBuffer(), 1, kPixels * sizeof(float));  // every page touched up front
}

void BM_ImportImage(benchmark::State& state) {
  vorn::ImageObject source, copy;
  allocate(source);
  allocate(copy);
  for (auto _ : state) {
    copy.import(&source, nullptr);  // same type and size: the buffer is reused
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * kPixels * sizeof(float)));
}
BENCHMARK(BM_ImportImage)->Unit(benchmark::kMillisecond);

void BM_MemcpyImage(benchmark::State& state) {
  vorn::ImageObject source, copy;
  allocate(source);
  allocate(copy);
  for (auto _ : state) {
    std::memcpy(copy.getBuffer(), source.getBuffer(), kPixels * sizeof(float));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * kPixels * sizeof(float)));
}
BENCHMARK(BM_MemcpyImage)->Unit(benchmark::kMillisecond);

}  // namespace

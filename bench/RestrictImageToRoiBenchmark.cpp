// Restricting an image to a mask, next to the plain branchless loop over raw arrays that the
// compiler builds for the running CPU (bench/PlainMaskLoop.cpp, built with -march=native), in
// the same binary and the same iterations: each pixel type, a cache-resident image (1 MiB) and
// memory-sized ones (64 MiB, 512 MiB), a random mask, and at 64 MiB a mask of two solid halves to
// show that randomness costs nothing.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>

#include <vorn/ImageObject.hpp>
#include <vorn/RestrictImageToRoi.hpp>
#include "PlainMaskLoop.hpp"

namespace {

enum MaskKind : int64_t { kRandom = 0, kHalves = 1 };

vorn::PixelType::Type typeOf(const benchmark::State& state) {
  return static_cast<vorn::PixelType::Type>(state.range(0));
}

boost::shared_ptr<vorn::ImageObject> makeImage(vorn::PixelType::Type type, unsigned long pixels) {
  boost::shared_ptr<vorn::ImageObject> image(new vorn::ImageObject);
  vorn::Box box(1);
  box.m_size[0] = pixels;
  image->Allocate(type, box);
  return image;
}

// The image and its mask (one byte per pixel, about half inside); every page is touched before
// timing starts.
struct Workload {
  explicit Workload(const benchmark::State& state)
      : type(typeOf(state)),
        bytes(static_cast<unsigned long>(state.range(1)) << 20),
        pixels(bytes / vorn::getSizeOf(type)),
        image(makeImage(type, pixels)),
        mask(makeImage(vorn::PixelType::UCHAR, pixels)) {
    std::memset(image->getBuffer(), 0x5a, bytes);
    auto* inside = static_cast<unsigned char*>(mask->getBuffer());
    for (unsigned long k = 0; k < pixels; ++k) {
      inside[k] = state.range(2) == kRandom ? ((k * 2654435761u) >> 13) & 1 : k < pixels / 2;
    }
  }
  void setBytes(benchmark::State& state) const {  // the image read and written, the mask read
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * bytes + pixels));
  }
  vorn::PixelType::Type type;
  unsigned long bytes;
  unsigned long pixels;
  boost::shared_ptr<vorn::ImageObject> image;
  boost::shared_ptr<vorn::ImageObject> mask;
};

void runPlainLoop(const Workload& work) {
  const auto* inside = static_cast<const unsigned char*>(work.mask->getBuffer());
  void* pixels = work.image->getBuffer();
  if (work.type == vorn::PixelType::UCHAR) {
    plainMaskLoop(static_cast<std::uint8_t*>(pixels), inside, work.pixels);
  } else if (work.type == vorn::PixelType::SHORT) {
    plainMaskLoop(static_cast<std::int16_t*>(pixels), inside, work.pixels);
  } else {
    plainMaskLoop(static_cast<float*>(pixels), inside, work.pixels);
  }
}

double secondsOf(const std::function<void()>& pass) {
  const auto start = std::chrono::steady_clock::now();
  pass();
  benchmark::ClobberMemory();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Each iteration runs vorn's restriction and the plain loop back to back, in alternating order,
// so that both see the same machine: the counters give both bandwidths and their ratio
// ("vorn_over_plain", above 1 when vorn is faster). The iteration's time is vorn's alone.
void BM_RestrictImageToRoi(benchmark::State& state) {
  Workload work(state);
  double vornSeconds = 0;
  double plainSeconds = 0;
  bool vornFirst = true;
  for (auto _ : state) {
    for (int turn = 0; turn < 2; ++turn) {
      if ((turn == 0) == vornFirst) {
        const double seconds =
            secondsOf([&work] { vorn::restrictImageToRoi(work.image, work.mask); });
        state.SetIterationTime(seconds);
        vornSeconds += seconds;
      } else {
        plainSeconds += secondsOf([&work] { runPlainLoop(work); });
      }
    }
    vornFirst = !vornFirst;
  }
  work.setBytes(state);
  const double bytes = static_cast<double>(state.bytes_processed());
  state.counters["vorn_GBps"] = bytes / vornSeconds / 1e9;
  state.counters["plain_GBps"] = bytes / plainSeconds / 1e9;
  state.counters["vorn_over_plain"] = plainSeconds / vornSeconds;
}

// Arguments: pixel type (1 unsigned char, 2 short, 3 float), image MiB, mask kind.
void sizes(benchmark::internal::Benchmark* bench) {
  for (int64_t type = 1; type <= 3; ++type) {
    for (int64_t mib : {1, 64, 512}) bench->Args({type, mib, kRandom});
    bench->Args({type, 64, kHalves});
  }
  bench->Unit(benchmark::kMicrosecond)->UseManualTime();
}
BENCHMARK(BM_RestrictImageToRoi)->Apply(sizes);

}  // namespace

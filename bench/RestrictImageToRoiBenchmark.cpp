// Bandwidth of restricting a 64 MiB image to a mask, for each pixel type, next to a baseline
// that moves the same bytes (read the image and the mask, write an image) with memcpy/memchr.
#include <benchmark/benchmark.h>

#include <cstring>

#include <vorn/ImageObject.hpp>
#include <vorn/RestrictImageToRoi.hpp>

namespace {

constexpr unsigned long kImageBytes = 64ul << 20;

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

// An image of 64 MiB and its mask, one byte per pixel, half of it inside in an irregular
// pattern; every page is touched before timing starts.
struct Workload {
  explicit Workload(vorn::PixelType::Type type)
      : pixels(kImageBytes / vorn::getSizeOf(type)),
        image(makeImage(type, pixels)),
        mask(makeImage(vorn::PixelType::UCHAR, pixels)) {
    std::memset(image->getBuffer(), 0x5a, kImageBytes);
    unsigned char* inside = static_cast<unsigned char*>(mask->getBuffer());
    for (unsigned long k = 0; k < pixels; ++k) inside[k] = ((k * 2654435761u) >> 13) & 1;
  }
  void setBytes(benchmark::State& state) const {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * kImageBytes + pixels));
  }
  unsigned long pixels;
  boost::shared_ptr<vorn::ImageObject> image;
  boost::shared_ptr<vorn::ImageObject> mask;
};

void BM_RestrictImageToRoi(benchmark::State& state) {
  Workload work(typeOf(state));
  for (auto _ : state) {
    vorn::restrictImageToRoi(work.image, work.mask);
    benchmark::ClobberMemory();
  }
  work.setBytes(state);
}

void BM_MemcpyBaseline(benchmark::State& state) {
  Workload work(typeOf(state));
  auto copy = makeImage(typeOf(state), work.pixels);
  std::memset(copy->getBuffer(), 0, kImageBytes);
  for (auto _ : state) {
    std::memcpy(copy->getBuffer(), work.image->getBuffer(), kImageBytes);
    // Looks for a byte the mask never holds, so the whole mask is read.
    benchmark::DoNotOptimize(std::memchr(work.mask->getBuffer(), 0xff, work.pixels));
    benchmark::ClobberMemory();
  }
  work.setBytes(state);
}

// Argument: the pixel type (1 unsigned char, 2 short, 3 float).
BENCHMARK(BM_MemcpyBaseline)->DenseRange(1, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RestrictImageToRoi)->DenseRange(1, 3)->Unit(benchmark::kMillisecond);

}  // namespace

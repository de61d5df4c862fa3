// Cost of ImageObject::import, the deep copy between images, next to a plain memcpy of the same
// 64 MiB: import should add nothing measurable to its one block copy. And the conversions from
// and to the host's image, which describe the same buffer and so must not depend on its size.
#include <benchmark/benchmark.h>

#include <cstring>

#include <vector>

#include <vorn/HostImageConversion.hpp>
#include <vorn/ImageObject.hpp>
#include <zelData/Image.hpp>
#include "CoutDiscard.hpp"

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

using HostImage = boost::shared_ptr<data::Image>;

// A float host image of side x side pixels, owning its buffer.
HostImage hostImage(int side) {
  HostImage image(new data::Image);
  image->setDimension(2);
  image->setPixelType(zelTools::makeDynamicType(std::string("float")));
  image->setBuffer(new char[static_cast<std::size_t>(side) * static_cast<std::size_t>(side) * 4]);
  image->setCRefSize({side, side});
  image->setCRefOrigin({0.0, 0.0});
  image->setCRefSpacing({1.0, 1.0});
  return image;
}

// Argument: the side of the square image (64: 16 KiB; 4096: 64 MiB).
void BM_ToVornImage(benchmark::State& state) {
  const CoutDiscard silent;  // the conversion writes the host's type name
  const HostImage host = hostImage(static_cast<int>(state.range(0)));
  vorn::ImageObject image;
  for (auto _ : state) {
    vorn::ToVornImage(host, &image);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ToVornImage)->Arg(64)->Arg(4096);

void BM_FromVornImage(benchmark::State& state) {
  const CoutDiscard silent;
  const HostImage host = hostImage(static_cast<int>(state.range(0)));
  vorn::ImageObject image;
  vorn::ToVornImage(host, &image);
  // The described host image shares `host`'s buffer: it is kept to the end of the process
  // rather than freeing that buffer a second time.
  static std::vector<data::Image*> sharing;
  sharing.push_back(new data::Image);
  const HostImage described(sharing.back(), [](data::Image*) {});
  for (auto _ : state) {
    vorn::FromVornImage(&image, described);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_FromVornImage)->Arg(64)->Arg(4096);

}  // namespace

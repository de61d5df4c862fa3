// The pixel-wise operators of vorn::operators on a 64 MiB float image (16 Mi pixels), next to the
// memory-bandwidth bound of one pass over it: a copy of the same image in the same binary, which
// reads and writes more bytes than any of them. Counter: seconds per pixel.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <vorn/ImageObject.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include <vorn/operators/BinaryThreshold.hpp>
#include <vorn/operators/CastOperator.hpp>
#include <vorn/operators/MaskOperator.hpp>
#include <vorn/operators/StatisticsOperator.hpp>
#include "CoutDiscard.hpp"

namespace {

constexpr unsigned long kPixels = 16ul << 20;

void setPerPixel(benchmark::State& state) {
  const auto perItem = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
  state.counters["s/pixel"] = benchmark::Counter(static_cast<double>(kPixels), perItem);
}

// Hands out a fixed image of `type`, values spread over 0..255; computed before timing starts.
class ImageSource : public vorn::ProcessObject {
 public:
  explicit ImageSource(vorn::PixelType::Type type) : m_type(type) {
    setName("ImageSource");
    addOutput("ImageObject");
  }
  void generateData() override {
    vorn::Box box(2);
    box.m_size[0] = 4096;
    box.m_size[1] = kPixels / 4096;
    auto image = boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(0)->getData());
    image->Allocate(m_type, box);
    for (unsigned long k = 0; k < kPixels; ++k) set(*image, k, (k * 2654435761u >> 16) & 255);
  }

 private:
  static void set(vorn::ImageObject& image, unsigned long k, unsigned long value) {
    if (image.getPointType() == vorn::PixelType::FLOAT) {
      static_cast<float*>(image.getBuffer())[k] = static_cast<float>(value);
    } else {
      static_cast<unsigned char*>(image.getBuffer())[k] = static_cast<unsigned char>(value & 1);
    }
  }
  vorn::PixelType::Type m_type;
};

// Runs `op`'s computation alone (update() would add the timing line) on the float image, and on
// a mask image for a second input.
void runOperator(benchmark::State& state, vorn::ProcessObject& op,
                 const std::vector<std::pair<std::string, std::string>>& parameters) {
  const CoutDiscard silent;
  ImageSource image(vorn::PixelType::FLOAT);
  ImageSource mask(vorn::PixelType::UCHAR);
  image.update();
  op.getInputPort(0)->connectTo(image.getOutputPort(0));
  if (op.getNumberOfInputPorts() > 1) {
    mask.update();
    op.getInputPort(1)->connectTo(mask.getOutputPort(0));
  }
  for (const auto& [name, value] : parameters) op.setParameterValue(name, value);
  op.generateData();  // the output's pages are touched once before timing
  for (auto _ : state) {
    op.generateData();
    benchmark::ClobberMemory();
  }
  setPerPixel(state);
}

void BM_CopyPassBound(benchmark::State& state) {
  std::vector<float> in(kPixels, 1.0f);
  std::vector<float> out(kPixels, 0.0f);
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), kPixels * sizeof(float));
    benchmark::ClobberMemory();
  }
  setPerPixel(state);
}
BENCHMARK(BM_CopyPassBound)->Unit(benchmark::kMillisecond);

void BM_BinaryThreshold(benchmark::State& state) {
  vorn::BinaryThreshold op;
  runOperator(state, op, {{"lower", "64"}, {"upper", "192"}});
}
BENCHMARK(BM_BinaryThreshold)->Unit(benchmark::kMillisecond);

void BM_CastToUchar(benchmark::State& state) {
  vorn::CastOperator op;
  runOperator(state, op, {{"type", "uchar"}});
}
BENCHMARK(BM_CastToUchar)->Unit(benchmark::kMillisecond);

void BM_Mask(benchmark::State& state) {
  vorn::MaskOperator op;
  runOperator(state, op, {});
}
BENCHMARK(BM_Mask)->Unit(benchmark::kMillisecond);

void BM_Statistics(benchmark::State& state) {
  vorn::StatisticsOperator op;
  runOperator(state, op, {});
}
BENCHMARK(BM_Statistics)->Unit(benchmark::kMillisecond);

}  // namespace

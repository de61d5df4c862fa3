// GaussianSmoothing on a 256^3 float volume at sigma 1, 2 and 4, next to a plain scalar
// separable loop (full kernel, clamped index per tap) doing the same arithmetic, and once more
// restricted to a 64^3 region of interest to show the work shrinking with the region; and the
// memory-bandwidth bound of the three passes (three copies of the volume).
// Counters: seconds per pixel, and per pixel and kernel tap (taps summed over the three axes).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <vorn/BoxRoi.hpp>
#include <vorn/ImageObject.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include <vorn/operators/GaussianSmoothing.hpp>
#include "CoutDiscard.hpp"

namespace {

constexpr long kSide = 256;
constexpr long kPixels = kSide * kSide * kSide;

boost::shared_ptr<vorn::ImageObject> asImage(const boost::shared_ptr<vorn::DataObject>& data) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(data);
}

// Hands out a fixed volume; computed once before timing starts.
class VolumeSource : public vorn::ProcessObject {
 public:
  VolumeSource() {
    setName("VolumeSource");
    addOutput("ImageObject");
  }
  void generateData() override {
    vorn::Box box(3);
    for (unsigned axis = 0; axis < 3; ++axis) box.m_size[axis] = kSide;
    const boost::shared_ptr<vorn::ImageObject> image = asImage(getOutputPort(0)->getData());
    image->Allocate(vorn::PixelType::FLOAT, box);
    float* pixels = static_cast<float*>(image->getBuffer());
    for (long k = 0; k < kPixels; ++k)
      pixels[k] = static_cast<float>((k * 2654435761u >> 16) & 255);
  }
};

long radiusOf(double sigma) { return static_cast<long>(4 * sigma + 0.5); }

void setCounters(benchmark::State& state, long pixels, long radius) {
  const double taps = 3.0 * static_cast<double>(2 * radius + 1);
  const auto perItem = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
  state.counters["s/pixel"] = benchmark::Counter(static_cast<double>(pixels), perItem);
  state.counters["s/pixel/tap"] = benchmark::Counter(static_cast<double>(pixels) * taps, perItem);
}

// generateData() is called directly: update() would add the engine's printed timing line.
void runGaussian(benchmark::State& state, const boost::shared_ptr<vorn::RoiObject const>& roi,
                 long pixels) {
  const CoutDiscard silent;  // the engine's lines stay out of the report
  VolumeSource source;
  source.update();
  vorn::GaussianSmoothing smooth;
  smooth.getInputPort(0)->connectTo(source.getOutputPort(0));
  smooth.setParameterValue("sigma", std::to_string(state.range(0)));
  if (roi) smooth.setRequestedRegionOfInterest(0, roi);
  for (auto _ : state) {
    smooth.generateData();
    benchmark::ClobberMemory();
  }
  setCounters(state, pixels, radiusOf(static_cast<double>(state.range(0))));
}

void BM_GaussianSmoothing(benchmark::State& state) { runGaussian(state, nullptr, kPixels); }

void BM_GaussianSmoothingRoi64(benchmark::State& state) {
  vorn::Box box(3);
  for (unsigned axis = 0; axis < 3; ++axis) {
    box.m_start[axis] = 96;
    box.m_size[axis] = 64;
  }
  boost::shared_ptr<vorn::BoxRoi> roi(new vorn::BoxRoi);
  roi->setBox(box);
  runGaussian(state, roi, 64 * 64 * 64);
}

std::vector<float> fullKernel(double sigma) {
  const long radius = radiusOf(sigma);
  std::vector<float> weights;
  double total = 0;
  const auto gauss = [sigma](long x) {
    const double t = static_cast<double>(x) / sigma;
    return std::exp(-0.5 * t * t);
  };
  for (long x = -radius; x <= radius; ++x) total += gauss(x);
  for (long x = -radius; x <= radius; ++x) weights.push_back(static_cast<float>(gauss(x) / total));
  return weights;
}

// The textbook loop: every pixel sums its 2r + 1 taps, clamping each index.
void scalarPass(const float* in, float* out, long stride, const std::vector<float>& weights) {
  const long radius = static_cast<long>(weights.size() / 2);
  const float* w = weights.data();
  for (long k = 0; k < kPixels; ++k) {
    const long index = k / stride % kSide;
    float sum = 0;
    for (long t = -radius; t <= radius; ++t) {
      const long source = std::clamp(index + t, 0L, kSide - 1);
      sum += w[t + radius] * in[k + (source - index) * stride];
    }
    out[k] = sum;
  }
}

void BM_ScalarSeparableBaseline(benchmark::State& state) {
  const double sigma = static_cast<double>(state.range(0));
  const std::vector<float> weights = fullKernel(sigma);
  std::vector<float> volume(kPixels);
  for (std::size_t k = 0; k < volume.size(); ++k) {
    volume[k] = static_cast<float>((k * 2654435761u >> 16) & 255);
  }
  std::vector<float> first(kPixels);
  std::vector<float> second(kPixels);
  for (auto _ : state) {
    scalarPass(volume.data(), first.data(), 1, weights);
    scalarPass(first.data(), second.data(), kSide, weights);
    scalarPass(second.data(), first.data(), kSide * kSide, weights);
    benchmark::DoNotOptimize(first.data());
    benchmark::ClobberMemory();
  }
  setCounters(state, kPixels, radiusOf(sigma));
}

// The memory-bandwidth bound of three separable passes: each reads the volume and writes one.
void BM_ThreePassBandwidthBound(benchmark::State& state) {
  std::vector<float> first(kPixels, 1.0f);
  std::vector<float> second(kPixels, 0.0f);
  for (auto _ : state) {
    for (int pass = 0; pass < 3; ++pass) {
      std::memcpy(second.data(), first.data(), kPixels * sizeof(float));
      std::swap(first, second);
    }
    benchmark::ClobberMemory();
  }
  setCounters(state, kPixels, 0);
}
BENCHMARK(BM_ThreePassBandwidthBound)->Unit(benchmark::kMillisecond);

// Argument: sigma in pixels.
BENCHMARK(BM_ScalarSeparableBaseline)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GaussianSmoothing)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GaussianSmoothingRoi64)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond);

}  // namespace

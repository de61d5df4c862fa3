// The Gaussian side by side with the big toolkit's discrete Gaussian filter on the same 256^3
// float volume, sigma 1, 2 and 4, both at one thread and at every core: the toolkit's kernel is
// capped at vorn's radius, int(4 sigma + 0.5), and its error bound set tiny, so that both filters
// run kernels of the same width over the same pixels. Built only where the toolkit is installed.
// Names: BM_ToolkitGaussian/<sigma>/<threads, 0 = every core>, BM_VornGaussian/<sigma>/<threads>.
#include <benchmark/benchmark.h>

#include <string>

#include <itkDiscreteGaussianImageFilter.h>
#include <itkImage.h>
#include <itkMultiThreaderBase.h>
#include <vorn/ImageObject.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/operators/GaussianSmoothing.hpp>
#include <vorn/operators/Threads.hpp>
#include "CoutDiscard.hpp"

namespace {

constexpr unsigned long kSide = 256;
using Volume = itk::Image<float, 3>;

float valueAt(unsigned long k) { return static_cast<float>((k * 2654435761u >> 16) & 255); }

unsigned threadsOf(const benchmark::State& state) {
  return state.range(1) == 0 ? vorn::threadCount() : static_cast<unsigned>(state.range(1));
}

void setCounter(benchmark::State& state) {
  state.counters["s/pixel"] = benchmark::Counter(
      static_cast<double>(kSide * kSide * kSide),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Hands out the fixed volume; computed once before timing starts.
class VolumeSource : public vorn::ProcessObject {
 public:
  VolumeSource() { addOutput("ImageObject"); }
  void generateData() override {
    vorn::Box box(3);
    for (unsigned axis = 0; axis < 3; ++axis) box.m_size[axis] = kSide;
    auto image = boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(0)->getData());
    image->Allocate(vorn::PixelType::FLOAT, box);
    auto* pixels = static_cast<float*>(image->getBuffer());
    for (unsigned long k = 0; k < image->getPixelNumber(); ++k) pixels[k] = valueAt(k);
  }
};

void BM_VornGaussian(benchmark::State& state) {
  const CoutDiscard silent;
  VolumeSource source;
  source.update();
  vorn::GaussianSmoothing smooth;
  smooth.getInputPort(0)->connectTo(source.getOutputPort(0));
  smooth.setParameterValue("sigma", std::to_string(state.range(0)));
  smooth.setParameterValue("threads", std::to_string(threadsOf(state)));
  for (auto _ : state) smooth.generateData();
  setCounter(state);
}

void BM_ToolkitGaussian(benchmark::State& state) {
  auto volume = Volume::New();
  Volume::SizeType size;
  size.Fill(kSide);
  volume->SetRegions(size);
  volume->Allocate();
  float* pixels = volume->GetBufferPointer();
  for (unsigned long k = 0; k < kSide * kSide * kSide; ++k) pixels[k] = valueAt(k);
  const double sigma = static_cast<double>(state.range(0));
  itk::Object::GlobalWarningDisplayOff();  // it warns of the cap on the kernel's width
  auto filter = itk::DiscreteGaussianImageFilter<Volume, Volume>::New();
  filter->SetInput(volume);
  filter->SetVariance(sigma * sigma);
  filter->SetMaximumKernelWidth(2 * static_cast<unsigned>(4 * sigma + 0.5) + 1);
  filter->SetMaximumError(1e-9);
  filter->SetNumberOfWorkUnits(threadsOf(state));
  filter->GetMultiThreader()->SetMaximumNumberOfThreads(threadsOf(state));
  for (auto _ : state) {
    filter->Modified();
    filter->Update();
  }
  setCounter(state);
}

void arguments(benchmark::internal::Benchmark* benchmark) {
  for (long sigma : {1, 2, 4}) {
    for (long threads : {1, 0}) benchmark->Args({sigma, threads});
  }
  benchmark->Unit(benchmark::kMillisecond)->UseRealTime();  // threads: wall time is what counts
}

BENCHMARK(BM_VornGaussian)->Apply(arguments);
BENCHMARK(BM_ToolkitGaussian)->Apply(arguments);

}  // namespace

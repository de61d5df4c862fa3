// The pixel operators at one thread and at every core (threads=0), on a 256^3
// float volume, a 4096^2 uchar image and a 64^2 float image, the last one below the size where
// work is handed to threads. Names: BM_Threads/<operator>/<image>/<threads>.
// Counter: seconds per pixel; scripts/bench_table.py divides the two counts' figures.
#include <benchmark/benchmark.h>

#include <string>
#include <utility>
#include <vector>

#include <vorn/ImageObject.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include <vorn/operators/OperatorCatalog.hpp>
#include "CoutDiscard.hpp"

namespace {

struct Shape {
  const char* name;
  std::vector<unsigned long> sizes;
  vorn::PixelType::Type type;
};

const Shape kShapes[] = {{"256cubed_float", {256, 256, 256}, vorn::PixelType::FLOAT},
                         {"4096squared_uchar", {4096, 4096}, vorn::PixelType::UCHAR},
                         {"64squared_float", {64, 64}, vorn::PixelType::FLOAT}};

// The operators, the parameters that give them real work, and whether they read a 0/1 mask.
struct Case {
  const char* name;
  std::vector<std::pair<std::string, std::string>> parameters;
  bool binary;
};
const Case kOperators[] = {{"gaussian", {{"sigma", "2"}}, false},
                           {"cast", {{"type", "short"}}, false},
                           {"threshold", {{"lower", "64"}, {"upper", "192"}}, false},
                           {"mask", {}, false},
                           {"stats", {}, false},
                           {"math", {{"op", "log"}}, false},
                           {"rescale", {}, false},
                           {"median", {{"size", "3"}}, false},
                           {"gradient", {{"sigma", "2"}}, false},
                           {"erode", {{"radius", "1"}}, false},
                           {"resample", {{"spacing", "0.8"}, {"order", "1"}}, false},
                           {"label", {}, true},
                           {"fill", {}, true},
                           {"distance", {}, true}};

// Hands out a fixed image of `shape`, or with `binary` a 0/1 mask of the same box; computed once
// before timing starts.
class ShapeSource : public vorn::ProcessObject {
 public:
  ShapeSource(const Shape& shape, bool binary) : m_shape(shape), m_binary(binary) {
    setName("ShapeSource");
    addOutput("ImageObject");
  }
  void generateData() override {
    vorn::Box box(static_cast<unsigned>(m_shape.sizes.size()));
    for (unsigned axis = 0; axis < m_shape.sizes.size(); ++axis) {
      box.m_size[axis] = m_shape.sizes[axis];
    }
    auto image = boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(0)->getData());
    image->Allocate(m_binary ? vorn::PixelType::UCHAR : m_shape.type, box);
    for (unsigned long k = 0; k < image->getPixelNumber(); ++k) {
      const unsigned long value = (k * 2654435761u >> 16) & 255;
      if (image->getPointType() == vorn::PixelType::FLOAT) {
        static_cast<float*>(image->getBuffer())[k] = static_cast<float>(value);
      } else {
        static_cast<unsigned char*>(image->getBuffer())[k] =
            static_cast<unsigned char>(m_binary ? value & 1 : value);
      }
    }
  }

 private:
  Shape m_shape;
  bool m_binary;
};

// generateData() alone: update() would add the engine's timing line. The output's pages are
// touched once before timing.
void runThreads(benchmark::State& state, const Case& which, const Shape& shape,
                const char* threads) {
  const CoutDiscard silent;
  ShapeSource image(shape, which.binary);
  ShapeSource mask(shape, true);
  const boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(which.name);
  image.update();
  op->getInputPort(0)->connectTo(image.getOutputPort(0));
  if (op->getNumberOfInputPorts() > 1) {
    mask.update();
    op->getInputPort(1)->connectTo(mask.getOutputPort(0));
  }
  for (const auto& [key, value] : which.parameters) op->setParameterValue(key, value);
  op->setParameterValue("threads", threads);
  op->generateData();
  for (auto _ : state) {
    op->generateData();
    benchmark::ClobberMemory();
  }
  double pixels = 1;
  for (unsigned long size : shape.sizes) pixels *= static_cast<double>(size);
  state.counters["s/pixel"] = benchmark::Counter(
      pixels, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

bool registerAll() {
  for (const Case& which : kOperators) {
    for (const Shape& shape : kShapes) {
      for (const char* threads : {"1", "0"}) {
        const std::string title =
            std::string("BM_Threads/") + which.name + "/" + shape.name + "/" + threads;
        benchmark::RegisterBenchmark(title.c_str(),
                                     [&which, shape, threads](benchmark::State& state) {
                                       runThreads(state, which, shape, threads);
                                     })
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
      }
    }
  }
  return true;
}

const bool kRegistered = registerAll();

}  // namespace

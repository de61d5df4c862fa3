// Every operator of the catalog gives the same bytes and the same printed lines for every thread
// count, and a failing chunk fails the update cleanly. The phantoms are a few chunks big, so the
// parallel path really runs.
#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "OperatorTestSupport.hpp"
#include "Parallel.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/operators/OperatorCatalog.hpp"
#include "vorn/operators/Threads.hpp"

namespace {

using Parameters = std::vector<std::pair<std::string, std::string>>;

// Values with fractions, negatives and a NaN, spread so that no two neighbours are alike.
template <class T>
ImagePtr phantom(const std::vector<unsigned long>& sizes, bool binary) {
  unsigned long count = 1;
  for (unsigned long size : sizes) count *= size;
  std::vector<T> values(count);
  for (unsigned long k = 0; k < count; ++k) {
    const unsigned long hash = (k * 2654435761u) >> 13;
    if (binary) {
      values[k] = static_cast<T>((k / 97 + hash) % 3 != 0);
    } else if constexpr (std::is_same_v<T, float>) {
      values[k] = static_cast<float>(hash % 300) * 0.75f - 20.0f;
    } else {
      values[k] = static_cast<T>(hash % 256);
    }
  }
  if constexpr (std::is_same_v<T, float>) {
    if (!binary) values[count / 2] = std::nanf("");
  }
  return makeImage<T>(sizes, values);
}

// Images of several chunks each: 3-D float and a wide 2-D uchar.
const std::vector<std::pair<ImagePtr, ImagePtr>>& phantoms() {
  static const std::vector<std::pair<ImagePtr, ImagePtr>> images = {
      {phantom<float>({40, 36, 30}, false), phantom<unsigned char>({40, 36, 30}, true)},
      {phantom<unsigned char>({1100, 40}, false), phantom<unsigned char>({1100, 40}, true)},
      {phantom<float>({40, 36, 30}, false), phantom<float>({40, 36, 30}, false)},
  };
  return images;
}

// Parameter sets where the defaults would leave the work trivial or be refused; every other
// operator runs with its defaults.
const std::map<std::string, std::vector<Parameters>> kParameterSets = {
    {"gaussian", {{{"sigma", "1.5"}}, {{"sigma", "0"}}, {{"sigma", "3,0.6,1"}}}},
    {"threshold", {{{"lower", "40"}, {"upper", "150.5"}, {"inside", "200"}}}},
    {"cast", {{{"type", "uchar"}}, {{"type", "short"}}, {{"type", "float"}}}},
    {"math", {{{"op", "div"}, {"value", "3"}}, {{"op", "sqrt"}, {"type", "short"}}}},
    {"resample", {{{"spacing", "0.7"}, {"order", "1"}}, {{"size", "9,17,5"}, {"order", "3"}}}},
    {"median", {{{"size", "5"}}}},
    {"erode", {{{"radius", "2"}}, {{"radius", "1"}, {"shape", "box"}}}},
    {"crop", {{{"start", "1,2,0"}, {"size", "20,20,3"}}}},
};

std::string describe(const vorn::ImageObject& image) {
  std::ostringstream text;
  text << vorn::getTypeIdName(image.getPointType()) << " " << image.getPixelNumber() << " px";
  for (unsigned axis = 0; axis < image.getDimension(); ++axis) {
    text << " " << image.getSpacing(axis) << "/" << image.getOrigin(axis);
  }
  const std::vector<char> bytes = pixelBytes(image);
  return text.str() + "\n" + std::string(bytes.begin(), bytes.end());
}

// Everything one run shows: its outputs, bytes included, what it printed, or its failure.
std::string outcome(const vorn::OperatorInfo& info, const Parameters& parameters,
                    const std::pair<ImagePtr, ImagePtr>& inputs, const std::string& threads) {
  ImageSource first(inputs.first);
  ImageSource second(inputs.second);
  CoutCapture printed;
  const boost::shared_ptr<vorn::ProcessObject> op = info.create();
  if (info.inputs == 1) connectInputs(*op, {&first});
  if (info.inputs == 2) connectInputs(*op, {&first, &second});
  for (const auto& [name, value] : parameters) op->setParameterValue(name, value);
  op->setParameterValue("threads", threads);
  std::string shown;
  try {
    first.update();
    second.update();
    printed.take();  // the engine's timing lines of the sources
    op->generateData();
    for (unsigned port = 0; port < op->getNumberOfOutputPorts(); ++port) {
      shown += describe(*outputOf(*op, port));
    }
  } catch (const std::exception& failure) {
    shown = std::string("failed: ") + failure.what();
  }
  return shown + "\nprinted: " + printed.take();
}

TEST(ThreadCount, EveryCatalogOperatorGivesTheSameBytesForEveryCount) {
  for (const vorn::OperatorInfo& info : vorn::operatorCatalog()) {
    if (info.inputs < 1 || info.inputs > 2 || info.name == "read" || info.name == "write") continue;
    const auto found = kParameterSets.find(info.name);
    const std::vector<Parameters> sets =
        found == kParameterSets.end() ? std::vector<Parameters>{{}} : found->second;
    bool computedSomething = false;
    for (const Parameters& parameters : sets) {
      for (std::size_t image = 0; image < phantoms().size(); ++image) {
        SCOPED_TRACE(info.name + " on phantom " + std::to_string(image) + ", parameter set " +
                     std::to_string(&parameters - sets.data()));
        const std::string single = outcome(info, parameters, phantoms()[image], "1");
        computedSomething |= single.rfind("failed: ", 0) != 0;
        for (const char* threads : {"2", "3", "7", "0", ""}) {
          EXPECT_EQ(outcome(info, parameters, phantoms()[image], threads), single)
              << "threads=" << threads;
        }
      }
    }
    EXPECT_TRUE(computedSomething) << info.name << " failed on every phantom";
  }
}

const std::pair<const char*, const char*> kBadCounts[] = {{"-1", "expected a count"},
                                                          {"two", "expected a count"},
                                                          {"1.5", "expected a count"},
                                                          {"1025", "expected a count"},
                                                          {" 2", "expected a count"}};

TEST(ThreadCount, AValueThatIsNotACountFailsTheUpdateNamingIt) {
  ImageSource source(phantom<float>({40, 36, 30}, false));
  for (const vorn::OperatorInfo& info : vorn::operatorCatalog()) {
    const boost::shared_ptr<vorn::ProcessObject> op = info.create();
    if (info.inputs != 1 || info.name == "write" || op->getParameterValue("threads") != "") {
      continue;
    }
    connectInputs(*op, {&source});
    const auto sets = kParameterSets.find(info.name);
    if (sets != kParameterSets.end()) {
      for (const auto& [name, value] : sets->second.front()) op->setParameterValue(name, value);
    }
    for (const auto& [value, why] : kBadCounts) {
      op->setParameterValue("threads", value);
      expectUpdateFailure(
          *op, "parameter 'threads' has invalid value '" + std::string(value) + "': " + why);
    }
  }
}

// Cuts 64 items into chunks of one; the chunk named by `fail` throws. Its output is written
// only once every chunk has succeeded.
class ChunkedOperator : public vorn::ProcessObject {
 public:
  ChunkedOperator() {
    setName("ChunkedOperator");
    addOutput("ImageObject");
    addParameter(new vorn::Parameter("fail", "-1"));
    addParameter(vorn::detail::threadsParameter());
  }
  void generateData() override {
    const long fail = std::stol(getParameterValue("fail"));
    std::vector<unsigned char> values(64);
    vorn::detail::parallelFor(vorn::detail::threadsFor(*this), values.size(), 1,
                              [&](std::size_t begin, std::size_t) { chunk(begin, fail, values); });
    const ImagePtr output = outputOf(*this);
    output->Allocate(vorn::PixelType::UCHAR,
                     makeImage<unsigned char>({64}, {0})->getBufferedRegion());
    std::copy(values.begin(), values.end(), static_cast<unsigned char*>(output->getBuffer()));
  }
  std::atomic<int> running{0};
  std::mutex guard;
  std::set<std::thread::id> threads;

 private:
  void chunk(std::size_t item, long fail, std::vector<unsigned char>& values) {
    ++running;
    {
      const std::lock_guard<std::mutex> lock(guard);
      threads.insert(std::this_thread::get_id());
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    values[item] = static_cast<unsigned char>(item + 1);
    --running;
    if (static_cast<long>(item) == fail)
      throw std::runtime_error("chunk " + std::to_string(item) + " failed");
  }
};

TEST(ThreadCount, AFailingChunkFailsTheUpdateAfterEveryChunkEndedAndKeepsTheOutput) {
  ChunkedOperator op;
  op.setParameterValue("threads", "3");
  run(op);
  const std::vector<char> before = pixelBytes(*outputOf(op));
  EXPECT_EQ(before[63], 64);
  if (std::thread::hardware_concurrency() > 1) {
    EXPECT_GT(op.threads.size(), 1u);
  }
  op.setParameterValue("fail", "37");
  expectUpdateFailure(op, "chunk 37 failed");
  EXPECT_EQ(op.running, 0);
  EXPECT_EQ(pixelBytes(*outputOf(op)), before);
}

TEST(ThreadCount, ZeroOrNothingMeansEveryUsableCore) {
  const unsigned int cores = (vorn::setThreadCount(0), vorn::threadCount());
  EXPECT_GE(cores, 1u);
  vorn::setThreadCount(3);
  EXPECT_EQ(vorn::threadCount(), 3u);
  ChunkedOperator op;
  EXPECT_EQ(vorn::detail::threadsFor(op), 3u);
  op.setParameterValue("threads", "0");
  EXPECT_EQ(vorn::detail::threadsFor(op), cores);
  op.setParameterValue("threads", "5");
  EXPECT_EQ(vorn::detail::threadsFor(op), 5u);
  vorn::setThreadCount(0);
}

}  // namespace

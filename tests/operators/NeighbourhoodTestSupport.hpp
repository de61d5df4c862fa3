// What the filter and morphology tests share: running a catalog operator by name, with a
// region of interest or a thread count, and the check that a region of interest gives the
// full result inside and zeros outside.
#pragma once

#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "OperatorTestSupport.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/operators/OperatorCatalog.hpp"

using Parameters = std::vector<std::pair<std::string, std::string>>;

inline boost::shared_ptr<vorn::BoxRoi> boxRoi(const std::vector<long>& start,
                                              const std::vector<unsigned long>& size) {
  vorn::Box box(static_cast<unsigned int>(start.size()));
  for (unsigned axis = 0; axis < start.size(); ++axis) {
    box.m_start[axis] = start[axis];
    box.m_size[axis] = size[axis];
  }
  boost::shared_ptr<vorn::BoxRoi> roi(new vorn::BoxRoi);
  roi->setBox(box);
  return roi;
}

// Catalog operator `name` given `parameters`, its inputs reading `first` and `second`.
inline boost::shared_ptr<vorn::ProcessObject> makeNamed(const std::string& name,
                                                        const Parameters& parameters,
                                                        ImageSource& first, ImageSource& second) {
  const boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(name);
  if (!op) throw std::logic_error("no operator " + name + " in the catalog");
  for (unsigned i = 0; i < op->getNumberOfInputPorts() && i < 2; ++i) {
    op->getInputPort(i)->connectTo((i == 0 ? first : second).getOutputPort(0));
  }
  for (const auto& [key, value] : parameters) op->setParameterValue(key, value);
  return op;
}

// The output of catalog operator `name` run on `image` (and `second` on input 1, if any).
inline ImagePtr runNamed(const std::string& name, const ImagePtr& image,
                         const Parameters& parameters,
                         const boost::shared_ptr<vorn::RoiObject const>& roi = nullptr,
                         const ImagePtr& second = nullptr) {
  ImageSource source(image), other(second ? second : image);
  const auto op = makeNamed(name, parameters, source, other);
  if (roi) op->setRequestedRegionOfInterest(0, roi);
  run(*op);
  return outputOf(*op);
}

// Runs `name` refusing `parameters`: the message names the parameter and its value.
inline void expectRefusal(const std::string& name, const ImagePtr& image,
                          const Parameters& parameters) {
  SCOPED_TRACE(name + " " + parameters.back().first + "=" + parameters.back().second);
  expectThrow<std::ios_base::failure>([&] { runNamed(name, image, parameters); },
                                      {parameters.back().first, parameters.back().second});
}

template <class T>
std::vector<T> randomValues(unsigned long count, unsigned seed, int low, int high) {
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> value(low, high);
  std::vector<T> values(count);
  for (T& v : values) v = static_cast<T>(value(generator));
  return values;
}

// Whether pixel `p` of a 13 x 11 x 9 image lies in the box, clipped to the image.
inline bool inBox(unsigned long p, const std::vector<long>& start,
                  const std::vector<unsigned long>& size) {
  const long index[] = {static_cast<long>(p % 13), static_cast<long>(p / 13 % 11),
                        static_cast<long>(p / 143)};
  for (unsigned axis = 0; axis < 3; ++axis) {
    if (index[axis] < start[axis] || index[axis] >= start[axis] + static_cast<long>(size[axis])) {
      return false;
    }
  }
  return true;
}

// On a 13 x 11 x 9 image, a box sticking out of it gives the full result bit for bit within
// the image's part of it, 0 elsewhere; any thread count gives the same bits. So does each box
// of a slider's walk asked of one operator in turn, which keeps its output buffer throughout.
inline void expectRegionAndThreadsKeepTheBits(const std::string& name, const ImagePtr& image,
                                              const Parameters& parameters,
                                              const ImagePtr& second = nullptr) {
  SCOPED_TRACE(name);
  const ImagePtr full = runNamed(name, image, parameters, nullptr, second);
  Parameters threaded = parameters;
  threaded.emplace_back("threads", "3");
  EXPECT_EQ(pixelBytes(*full), pixelBytes(*runNamed(name, image, threaded, nullptr, second)));
  const std::vector<double> whole = valuesOf(*full);
  ImageSource source(image), other(second ? second : image);
  const auto op = makeNamed(name, parameters, source, other);
  const struct {
    std::vector<long> start;
    std::vector<unsigned long> size;
  } boxes[] = {
      {{3, -2, 4}, {5, 6, 100}}, {{0, 0, 6}, {13, 11, 1}}, {{0, 0, 2}, {13, 11, 1}},
      {{0, 5, 0}, {13, 1, 9}},   {{0, 0, 0}, {13, 11, 9}}, {{4, 3, 1}, {2, 2, 2}},
      {{0, 0, 0}, {13, 0, 9}},   {{12, 0, 0}, {1, 11, 9}},
  };
  for (const auto& box : boxes) {
    SCOPED_TRACE("box " + std::to_string(&box - boxes));
    op->setRequestedRegionOfInterest(0, boxRoi(box.start, box.size));
    run(*op);
    const std::vector<double> part = valuesOf(*outputOf(*op));
    ASSERT_EQ(whole.size(), part.size());
    for (unsigned long p = 0; p < whole.size(); ++p) {
      ASSERT_EQ(part[p], inBox(p, box.start, box.size) ? whole[p] : 0.0) << "pixel " << p;
    }
  }
}

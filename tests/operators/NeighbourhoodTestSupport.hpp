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

// The output of catalog operator `name` run on `image`.
inline ImagePtr runNamed(const std::string& name, const ImagePtr& image,
                         const Parameters& parameters,
                         const boost::shared_ptr<vorn::RoiObject const>& roi = nullptr) {
  ImageSource source(image);
  const boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(name);
  if (!op) throw std::logic_error("no operator " + name + " in the catalog");
  op->getInputPort(0)->connectTo(source.getOutputPort(0));
  for (const auto& [key, value] : parameters) op->setParameterValue(key, value);
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

// On a 13 x 11 x 9 image, a box sticking out of it gives the full result bit for bit within
// the image's part of it, 0 elsewhere, also after a whole run; any thread count gives the
// same bits.
inline void expectRegionAndThreadsKeepTheBits(const std::string& name, const ImagePtr& image,
                                              const Parameters& parameters) {
  SCOPED_TRACE(name);
  const ImagePtr full = runNamed(name, image, parameters);
  Parameters threaded = parameters;
  threaded.emplace_back("threads", "3");
  EXPECT_EQ(pixelBytes(*full), pixelBytes(*runNamed(name, image, threaded)));
  // The region is computed into the buffer of a whole run, which must not show through.
  ImageSource source(image);
  const boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(name);
  op->getInputPort(0)->connectTo(source.getOutputPort(0));
  for (const auto& [key, value] : parameters) op->setParameterValue(key, value);
  run(*op);
  op->setRequestedRegionOfInterest(0, boxRoi({3, -2, 4}, {5, 6, 100}));
  run(*op);
  const ImagePtr part = outputOf(*op);
  const std::vector<double> whole = valuesOf(*full), inside = valuesOf(*part);
  ASSERT_EQ(whole.size(), inside.size());
  for (unsigned long p = 0; p < whole.size(); ++p) {
    const long x = static_cast<long>(p % 13), y = static_cast<long>(p / 13 % 11),
               z = static_cast<long>(p / 143);
    const bool in = x >= 3 && x < 8 && y < 4 && z >= 4;
    ASSERT_EQ(inside[p], in ? whole[p] : 0.0) << "pixel " << p;
  }
}

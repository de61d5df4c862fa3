// What the intensity and geometry tests share: comparing pixels with reference numbers, and
// running a catalog operator by name on images.
#pragma once

#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "OperatorTestSupport.hpp"
#include "vorn/operators/OperatorCatalog.hpp"

using Parameters = std::vector<std::pair<std::string, std::string>>;

// NaN where the reference has NaN, infinities exactly, other values within 4 float ulps (the
// references are float32 results; vorn may round the last bit differently).
inline void expectMatches(const std::vector<double>& actual, const std::vector<double>& expected,
                          const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (std::isnan(expected[i])) {
      EXPECT_TRUE(std::isnan(actual[i])) << what << ", pixel " << i << ": " << actual[i];
    } else {
      EXPECT_FLOAT_EQ(static_cast<float>(actual[i]), static_cast<float>(expected[i]))
          << what << ", pixel " << i;
    }
  }
}

// The catalog operator `name` with `parameters`, fed `images` (one per input), updated.
inline boost::shared_ptr<vorn::ProcessObject> runCatalog(const std::string& name,
                                                         const Parameters& parameters,
                                                         const std::vector<ImagePtr>& images) {
  std::vector<std::unique_ptr<ImageSource>> sources;
  boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(name);
  for (unsigned i = 0; i < images.size(); ++i) {
    sources.push_back(std::make_unique<ImageSource>(images[i]));
    op->getInputPort(i)->connectTo(sources.back()->getOutputPort(0));
  }
  for (const auto& [key, value] : parameters) op->setParameterValue(key, value);
  run(*op);
  return op;
}

inline std::string describe(const std::string& name, const Parameters& parameters) {
  std::string text = name;
  for (const auto& [key, value] : parameters) text += " " + key + "=" + value;
  return text;
}

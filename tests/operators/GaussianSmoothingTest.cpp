#include "vorn/operators/GaussianSmoothing.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <ios>
#include <random>
#include <string>
#include <vector>

#include "ImageSourceOperator.hpp"
#include "vorn/BoxRoi.hpp"

namespace {

// Normalised weights for offsets -radius..radius, straight from the definition of the kernel.
std::vector<double> axisWeights(double sigma) {
  if (sigma == 0) return {1.0};
  const int radius = static_cast<int>(4 * sigma + 0.5);
  std::vector<double> weights;
  double total = 0;
  for (int x = -radius; x <= radius; ++x) {
    weights.push_back(std::exp(-x * x / (2 * sigma * sigma)));
    total += weights.back();
  }
  for (double& w : weights) w /= total;
  return weights;
}

// The index along `axis` of flat position `p` in a grid of `sizes`.
long indexAlong(unsigned long p, const std::vector<unsigned long>& sizes, unsigned axis) {
  for (unsigned a = 0; a < axis; ++a) p /= sizes[a];
  return static_cast<long>(p % sizes[axis]);
}

// A direct sum over the whole N-dimensional kernel footprint for every pixel, indices clamped
// to the image: no separability, no folding, nothing shared with the operator.
std::vector<double> directSmoothing(const std::vector<float>& in,
                                    const std::vector<unsigned long>& sizes,
                                    const std::vector<double>& sigmas) {
  std::vector<std::vector<double>> weights;
  std::vector<unsigned long> footprint;
  unsigned long taps = 1;
  for (double sigma : sigmas) {
    weights.push_back(axisWeights(sigma));
    footprint.push_back(weights.back().size());
    taps *= weights.back().size();
  }
  std::vector<double> out(in.size(), 0.0);
  for (unsigned long p = 0; p < in.size(); ++p) {
    for (unsigned long q = 0; q < taps; ++q) {
      double weight = 1;
      unsigned long source = 0;
      unsigned long stride = 1;
      for (unsigned axis = 0; axis < sizes.size(); ++axis) {
        const long tap = indexAlong(q, footprint, axis);
        const long radius = static_cast<long>(footprint[axis] / 2);
        const long last = static_cast<long>(sizes[axis]) - 1;
        const long index = std::min(std::max(indexAlong(p, sizes, axis) + tap - radius, 0L), last);
        weight *= weights[axis][tap];
        source += static_cast<unsigned long>(index) * stride;
        stride *= sizes[axis];
      }
      out[p] += weight * in[source];
    }
  }
  return out;
}

std::vector<float> randomPixels(unsigned long count, unsigned seed) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> value(0.0f, 100.0f);
  std::vector<float> pixels(count);
  for (float& p : pixels) p = value(generator);
  return pixels;
}

unsigned long countOf(const std::vector<unsigned long>& sizes) {
  unsigned long count = 1;
  for (unsigned long s : sizes) count *= s;
  return count;
}

std::vector<float> smoothed(const ImagePtr& image, const std::string& sigma,
                            boost::shared_ptr<vorn::RoiObject const> roi = nullptr) {
  ImageSource source(image);
  vorn::GaussianSmoothing smooth;
  connectInputs(smooth, {&source});
  smooth.setParameterValue("sigma", sigma);
  if (roi) smooth.setRequestedRegionOfInterest(0, roi);
  run(smooth);
  EXPECT_EQ(outputOf(smooth)->getPointType(), vorn::PixelType::FLOAT);
  return pixelsOf<float>(*outputOf(smooth));
}

void expectNear(const std::vector<float>& actual, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    EXPECT_NEAR(actual[k], expected[k], tolerance) << "pixel " << k;
  }
}

struct DirectCase {
  std::vector<unsigned long> sizes;
  std::string sigma;
  std::vector<double> sigmas;
};

// Values lie in [0, 100); the tolerance allows for float arithmetic only.
TEST(GaussianSmoothing, MatchesADirectSumOverTheKernelFootprint) {
  const std::vector<DirectCase> cases = {
      {{23, 17}, "2", {2, 2}},
      {{9, 8, 7}, "1", {1, 1, 1}},
      // Axis 1 is left alone; axis 2's radius of 8 reaches far beyond its 3 pixels.
      {{11, 9, 3}, "1.5,0,2", {1.5, 0, 2}},
      {{30}, "0.3", {0.3}},
      // Rows longer than the operator's pieces, lines longer than its blocks.
      {{530, 140}, "0.5,2", {0.5, 2}},
  };
  for (const DirectCase& c : cases) {
    SCOPED_TRACE("sigma " + c.sigma);
    const std::vector<float> pixels = randomPixels(countOf(c.sizes), 7);
    expectNear(smoothed(makeImage<float>(c.sizes, pixels), c.sigma),
               directSmoothing(pixels, c.sizes, c.sigmas), 1e-4);
  }
}

// Computed once with scipy.ndimage.gaussian_filter(x, sigma, mode='nearest', truncate=4.0)
// in float64; scipy orders axes the other way round, so vorn's "1.5,0.7" is its (0.7, 1.5).
TEST(GaussianSmoothing, MatchesReferenceNumbers) {
  const std::vector<float> grid = {0, 7, 3, 10, 6, 2, 9, 3, 10, 6, 2, 9, 5, 1, 6, 2, 9, 40,
                                   1, 8, 4, 9,  5, 1, 8, 4, 0,  7, 1, 8, 4, 0, 7, 3, 10};
  const std::vector<double> gridSmoothed = {
      2.804822, 4.252918, 5.411976, 5.957259, 5.963310, 5.928054, 6.260724, 4.669601, 5.958651,
      7.076086, 7.424580, 6.760332, 5.515737, 4.396061, 6.315276, 7.633073, 9.521135, 10.304551,
      8.973970, 6.728459, 5.120510, 6.121465, 6.056368, 6.301709, 6.399448, 5.985956, 5.613453,
      5.847925, 3.763512, 4.145568, 4.180086, 4.221822, 4.731421, 5.820704, 7.219414};
  expectNear(smoothed(makeImage<float>({7, 5}, grid), "1.5,0.7"), gridSmoothed, 1e-4);
  // A radius of 12 on a line of 5 pixels.
  expectNear(smoothed(makeImage<float>({5}, {0, 10, 0, 5, 100}), "3"),
             {13.717761, 21.984679, 32.657944, 45.080553, 58.084809}, 1e-4);
}

TEST(GaussianSmoothing, SmoothsIntegerInputsAsFloat) {
  const std::vector<unsigned long> sizes = {10, 6};
  std::vector<float> values(countOf(sizes));
  std::vector<unsigned char> bytes;
  std::vector<short> shorts;
  for (std::size_t k = 0; k < values.size(); ++k) {
    values[k] = static_cast<float>((k * 37) % 256);
    bytes.push_back(static_cast<unsigned char>(values[k]));
    shorts.push_back(static_cast<short>(values[k] * -100));
  }
  const std::vector<double> expected = directSmoothing(values, sizes, {1.2, 0.8});
  expectNear(smoothed(makeImage(sizes, bytes), "1.2,0.8"), expected, 1e-3);
  std::vector<double> negated;
  for (double v : expected) negated.push_back(v * -100);
  expectNear(smoothed(makeImage(sizes, shorts), "1.2,0.8"), negated, 0.1);
}

TEST(GaussianSmoothing, ZeroSigmaCopiesTheInputAsFloat) {
  const std::vector<unsigned char> bytes = {0, 1, 2, 255, 4, 5};
  EXPECT_EQ(smoothed(makeImage<unsigned char>({3, 2}, bytes), "0"),
            (std::vector<float>{0, 1, 2, 255, 4, 5}));
}

TEST(GaussianSmoothing, KeepsBoxSpacingAndOrigin) {
  const ImagePtr image = makeImage<float>({4, 3}, randomPixels(12, 1));
  image->setSpacing(1, 0.25);
  image->setOrigin(0, -3);
  ImageSource source(image);
  vorn::GaussianSmoothing smooth;
  EXPECT_EQ(smooth.getName(), "GaussianSmoothing");
  EXPECT_EQ(smooth.getParameterValue("sigma"), "1");
  connectInputs(smooth, {&source});
  run(smooth);
  const ImagePtr out = outputOf(smooth);
  EXPECT_TRUE(out->getBufferedRegion() == image->getBufferedRegion());
  EXPECT_EQ(out->getSpacing(1), 0.25);
  EXPECT_EQ(out->getOrigin(0), -3);
}

boost::shared_ptr<vorn::BoxRoi> boxRoi(std::vector<long> start, std::vector<unsigned long> size) {
  vorn::Box box(static_cast<unsigned int>(start.size()));
  for (unsigned axis = 0; axis < start.size(); ++axis) {
    box.m_start[axis] = start[axis];
    box.m_size[axis] = size[axis];
  }
  boost::shared_ptr<vorn::BoxRoi> roi(new vorn::BoxRoi);
  roi->setBox(box);
  return roi;
}

bool insideBox(unsigned long p, const std::vector<unsigned long>& sizes,
               const std::vector<long>& first, const std::vector<long>& end) {
  for (unsigned axis = 0; axis < sizes.size(); ++axis) {
    const long index = indexAlong(p, sizes, axis);
    if (index < first[axis] || index >= end[axis]) return false;
  }
  return true;
}

// The box sticks out of the image on axes 1 and 2, so it is clipped to [3,8) x [0,4) x [4,9).
TEST(GaussianSmoothing, RegionOfInterestGivesTheFullResultInsideAndZerosOutside) {
  const std::vector<unsigned long> sizes = {13, 11, 9};
  const ImagePtr image = makeImage<float>(sizes, randomPixels(countOf(sizes), 3));
  for (const std::string sigma : {"1.2,2,0.8", "0,1,0", "0"}) {
    SCOPED_TRACE("sigma " + sigma);
    const std::vector<float> full = smoothed(image, sigma);
    const std::vector<float> part = smoothed(image, sigma, boxRoi({3, -2, 4}, {5, 6, 100}));
    ASSERT_EQ(part.size(), full.size());
    for (unsigned long p = 0; p < full.size(); ++p) {
      const bool inside = insideBox(p, sizes, {3, 0, 4}, {8, 4, 9});
      EXPECT_EQ(part[p], inside ? full[p] : 0.0f) << "pixel " << p;
    }
  }
}

TEST(GaussianSmoothing, RegionOfInterestMissingTheImageGivesZeros) {
  const ImagePtr image = makeImage<float>({6, 5}, randomPixels(30, 5));
  const std::vector<float> zeros(30, 0.0f);
  EXPECT_EQ(smoothed(image, "1", boxRoi({6, 0}, {3, 5})), zeros);
  EXPECT_EQ(smoothed(image, "1", boxRoi({-4, 0}, {4, 5})), zeros);
  EXPECT_EQ(smoothed(image, "1", boxRoi({0, 0}, {0, 5})), zeros);
  EXPECT_EQ(smoothed(image, "1", boxRoi({0}, {6})), zeros);  // another axis count
}

TEST(GaussianSmoothing, BadSigmaFailsNamingItAndKeepsThePreviousOutput) {
  ImageSource source(makeImage<float>({3, 2}, {1, 2, 3, 4, 5, 6}));
  vorn::GaussianSmoothing smooth;
  connectInputs(smooth, {&source});
  smooth.setParameterValue("sigma", "0");
  run(smooth);
  for (const std::string bad : {"abc", "-1", "1,2,3", "", "1,,2", "2e6", "0,-0.5", "nan"}) {
    smooth.setParameterValue("sigma", bad);
    try {
      run(smooth);
      ADD_FAILURE() << "sigma '" << bad << "' was accepted";
    } catch (const std::ios_base::failure& e) {
      const std::string what = e.what();
      EXPECT_NE(what.find("GaussianSmoothing: parameter 'sigma' has invalid value '" + bad + "'"),
                std::string::npos)
          << what;
    }
    EXPECT_EQ(pixelsOf<float>(*outputOf(smooth)), (std::vector<float>{1, 2, 3, 4, 5, 6}));
  }
}

}  // namespace

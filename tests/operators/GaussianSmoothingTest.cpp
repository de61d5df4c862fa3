#include "vorn/operators/GaussianSmoothing.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "NeighbourhoodTestSupport.hpp"

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
        weight *= weights[axis][static_cast<std::size_t>(tap)];
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

// The smoothed pixels of `image`, checked to be float over the input's geometry.
std::vector<float> smoothed(const ImagePtr& image, const std::string& sigma,
                            boost::shared_ptr<vorn::RoiObject const> roi = nullptr) {
  ImageSource source(image);
  vorn::GaussianSmoothing smooth;
  connectInputs(smooth, {&source});
  smooth.setParameterValue("sigma", sigma);
  if (roi) smooth.setRequestedRegionOfInterest(0, roi);
  run(smooth);
  EXPECT_EQ(outputOf(smooth)->getPointType(), vorn::PixelType::FLOAT);
  expectSameGeometry(*outputOf(smooth), *image);
  return pixelsOf<float>(*outputOf(smooth));
}

void expectNear(const std::vector<float>& actual, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    EXPECT_NEAR(actual[k], expected[k], tolerance) << "pixel " << k;
  }
}

// Random values lie in [0, 100); the tolerance allows for float arithmetic only.
TEST(GaussianSmoothing, MatchesADirectSumOverTheKernelFootprint) {
  const struct {
    std::vector<unsigned long> sizes;
    std::string sigma;
    std::vector<double> sigmas;
  } cases[] = {
      {{23, 17}, "2", {2, 2}},
      {{9, 8, 7}, "1", {1, 1, 1}},
      // Axis 1 is left alone; axis 2's radius of 8 reaches far beyond its 3 pixels.
      {{11, 9, 3}, "1.5,0,2", {1.5, 0, 2}},
      {{30}, "0.3", {0.3}},
      {{3, 2}, "0", {0, 0}},
      // Rows longer than the operator's pieces, lines longer than its blocks.
      {{530, 140}, "0.5,2", {0.5, 2}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("sigma " + c.sigma);
    const std::vector<float> pixels = randomPixels(countOf(c.sizes), 7);
    expectNear(smoothed(makeImage<float>(c.sizes, pixels), c.sigma),
               directSmoothing(pixels, c.sizes, c.sigmas), 1e-4);
  }
  // Integer pixels are smoothed as float, not rounded back.
  for (const float scale : {1.0f, -100.0f}) {
    std::vector<float> values;
    for (unsigned k = 0; k < 60; ++k) values.push_back(scale * static_cast<float>(k * 37 % 256));
    const ImagePtr image =
        scale > 0 ? makeImage({10, 6}, std::vector<unsigned char>(values.begin(), values.end()))
                  : makeImage({10, 6}, std::vector<short>(values.begin(), values.end()));
    expectNear(smoothed(image, "1.2,0.8"), directSmoothing(values, {10, 6}, {1.2, 0.8}),
               1e-3 * std::abs(scale));
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

// Inside the box clipped to the image the result is the full one, outside it is zero. The
// first box sticks out on axes 1 and 2 and is clipped to [3,8) x [0,4) x [4,9); the others miss
// the image: past either end, empty, or of another axis count.
TEST(GaussianSmoothing, RegionOfInterestGivesTheFullResultInsideAndZerosOutside) {
  const std::vector<unsigned long> sizes = {13, 11, 9};
  const ImagePtr image = makeImage<float>(sizes, randomPixels(countOf(sizes), 3));
  const struct {
    boost::shared_ptr<vorn::BoxRoi> roi;
    std::vector<long> first, end;
  } cases[] = {
      {boxRoi({3, -2, 4}, {5, 6, 100}), {3, 0, 4}, {8, 4, 9}},
      {boxRoi({13, 0, 0}, {3, 11, 9}), {}, {}},
      {boxRoi({0, 0, -4}, {13, 11, 4}), {}, {}},
      {boxRoi({0, 0, 0}, {13, 0, 9}), {}, {}},
      {boxRoi({0, 0}, {13, 11}), {}, {}},
  };
  for (const std::string sigma : {"1.2,2,0.8", "0,1,0", "0"}) {
    const std::vector<float> full = smoothed(image, sigma);
    for (const auto& c : cases) {
      SCOPED_TRACE("sigma " + sigma + ", case " + std::to_string(&c - cases));
      const std::vector<float> part = smoothed(image, sigma, c.roi);
      ASSERT_EQ(part.size(), full.size());
      for (unsigned long p = 0; p < full.size(); ++p) {
        bool inside = !c.first.empty();
        for (unsigned axis = 0; inside && axis < 3; ++axis) {
          const long index = indexAlong(p, sizes, axis);
          inside = index >= c.first[axis] && index < c.end[axis];
        }
        ASSERT_EQ(part[p], inside ? full[p] : 0.0f) << "pixel " << p;
      }
    }
  }
}

}  // namespace

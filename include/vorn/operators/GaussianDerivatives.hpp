// vorn/operators/GaussianDerivatives.hpp
//
// GradientMagnitude and LaplacianOfGaussian: derivatives of Gaussian smoothing of an
// N-dimensional image (UCHAR, SHORT or FLOAT) into a FLOAT image of the same box and geometry.
//
//   vorn::GradientMagnitude edges;
//   edges.setParameterValue("sigma", "1.5");   // in pixels, one value or one per axis
//
// GradientMagnitude is sqrt(sum over axes of (d/dx_axis of the smoothed image)^2);
// LaplacianOfGaussian is the sum over axes of the second derivatives. Each derivative is the
// separable Gaussian of GaussianSmoothing (radius int(4 sigma + 0.5), edge pixels repeat) with
// that axis's kernel differentiated once or twice, as scipy.ndimage.gaussian_gradient_magnitude
// and gaussian_laplace with mode='nearest'. Derivatives are per pixel, not per physical unit.
//
// Parameters:
//   sigma    "1"  in pixels, above 0 and at most 1e6: one value for every axis or one per axis
//   threads  ""   worker threads (empty: vorn::setThreadCount); any count gives the same bits
//
// Regions of interest: when the output's region of interest is set, only its bounding box
// (clipped to the image) is computed, exactly as the whole image gives it there, and the rest
// of the output is 0. A bad sigma fails the update and leaves the output as it was.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

// Gaussian gradient magnitude into a float image.
class VORN_OPERATORS_API GradientMagnitude : public ProcessObject, public LocalOperator {
 public:
  GradientMagnitude();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

// Laplacian of Gaussian into a float image.
class VORN_OPERATORS_API LaplacianOfGaussian : public ProcessObject, public LocalOperator {
 public:
  LaplacianOfGaussian();
  void generateData() override;
  std::vector<long> inputHalo(unsigned int axes) override;
};

}  // namespace vorn

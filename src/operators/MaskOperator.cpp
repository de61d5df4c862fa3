#include "vorn/operators/MaskOperator.hpp"

#include <stdexcept>
#include <string>

#include "OperatorSupport.hpp"
#include "vorn/MaskRoi.hpp"
#include "vorn/RestrictImageToRoi.hpp"

namespace vorn {
namespace {

void checkMask(const ProcessObject& op, const ImageObject& image, const ImageObject& mask) {
  if (mask.getPointType() != PixelType::UCHAR) {
    throw std::invalid_argument(op.getName() + ": the mask (input 1) holds " +
                                getTypeIdName(mask.getPointType()) +
                                " pixels; it must hold unsigned char");
  }
  if (mask.getPixelNumber() != image.getPixelNumber()) {
    throw std::invalid_argument(
        op.getName() + ": the mask (input 1) has " + std::to_string(mask.getPixelNumber()) +
        " pixels, the image (input 0) " + std::to_string(image.getPixelNumber()));
  }
}

}  // namespace

MaskOperator::MaskOperator() {
  setName("MaskOperator");
  addInput("ImageObject");
  addInput("ImageObject");
  addOutput("ImageObject");
}

void MaskOperator::generateData() {
  const detail::ImagePtr image = detail::inputImage(*this, 0);
  const detail::ImagePtr mask = detail::inputImage(*this, 1);
  checkMask(*this, *image, *mask);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  output->import(image.get(), this);
  MaskRoi region;
  region.setMaskImage(mask);
  restrictImageToRoi(output, region.getMaskImage());
}

std::vector<long> MaskOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

#include "vorn/operators/MaskOperator.hpp"

#include <cstring>
#include <stdexcept>
#include <string>

#include "OperatorSupport.hpp"
#include "Parallel.hpp"
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

// Each chunk copies its pixels and zeroes the masked ones while they are still in cache: one
// pass over memory instead of a copy and then a restriction.
template <class T>
void copyMasked(unsigned int threads, const ImageObject& image, const ImageObject& mask,
                ImageObject& output) {
  const auto* in = static_cast<const T*>(image.getBuffer());
  const auto* bytes = static_cast<const unsigned char*>(mask.getBuffer());
  T* out = static_cast<T*>(output.getBuffer());
  detail::parallelFor(threads, image.getPixelNumber(), detail::kGrainPixels,
                      [&](std::size_t begin, std::size_t end) {
                        std::memcpy(out + begin, in + begin, (end - begin) * sizeof(T));
                        mergeBuffer<T, unsigned char>(out + begin, bytes + begin, end - begin);
                      });
}

}  // namespace

MaskOperator::MaskOperator() {
  setName("MaskOperator");
  addInput("ImageObject");
  addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(detail::threadsParameter());
}

void MaskOperator::generateData() {
  const detail::ImagePtr image = detail::inputImage(*this, 0);
  const detail::ImagePtr mask = detail::inputImage(*this, 1);
  checkMask(*this, *image, *mask);
  const unsigned int threads = detail::threadsFor(*this);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const ImageObject& source = *image;
  detail::dispatchPixelType(source.getPointType(), [&](auto tag) {
    detail::shapeLike(source, source.getPointType(), *output);
    copyMasked<typename decltype(tag)::type>(threads, source, *mask, *output);
  });
}

std::vector<long> MaskOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

#include "vorn/operators/MaskOperator.hpp"

#include <cstring>
#include <stdexcept>
#include <string>

#include "OperatorSupport.hpp"
#include "ParallelRows.hpp"
#include "RegionOutput.hpp"
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

// Each row copies its pixels and zeroes the masked ones while they are still in cache: one
// pass over memory instead of a copy and then a restriction.
template <class T>
void copyMasked(unsigned int threads, const ImageObject& image, const ImageObject& mask,
                const detail::Region& target, ImageObject& output) {
  const auto* in = static_cast<const T*>(image.getBuffer());
  const auto* bytes = static_cast<const unsigned char*>(mask.getBuffer());
  T* out = static_cast<T*>(output.getBuffer());
  detail::parallelRows(threads, detail::layoutOf(image), target,
                       [&](long offset, const std::vector<long>&, long first, long width) {
                         const long begin = offset + first;
                         std::memcpy(out + begin, in + begin,
                                     static_cast<std::size_t>(width) * sizeof(T));
                         mergeBuffer<T, unsigned char>(out + begin, bytes + begin,
                                                       static_cast<unsigned long>(width));
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
  const detail::Layout layout = detail::layoutOf(source);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::dispatchPixelType(source.getPointType(), [&](auto tag) {
    detail::shapeOutput(*output, source.getPointType(), source.getBufferedRegion());
    detail::copyGeometry(source, *output);
    copyMasked<typename decltype(tag)::type>(threads, source, *mask, target, *output);
  });
  detail::clearOutside(*output, layout, target, target, m_written);
}

std::vector<long> MaskOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

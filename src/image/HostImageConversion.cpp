#include "vorn/HostImageConversion.hpp"

#include <iostream>
#include <string>
#include <vector>

#include <zelData/Image.hpp>
#include <zelTools/DynamicType.hpp>

#include "vorn/Box.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {
namespace {

void refuse(const char* operation, const char* reason) {
  std::cout << operation << " : " << reason << std::endl;
}

// The host's values passed through single precision, as the library stores them.
double throughFloat(double value) { return static_cast<double>(static_cast<float>(value)); }

bool describesEveryAxis(const data::Image& img) {
  const std::size_t n = img.getDimension();
  return img.getCRefSize().size() >= n && img.getCRefOrigin().size() >= n &&
         img.getCRefSpacing().size() >= n;
}

}  // namespace

void ToVornImage(boost::shared_ptr<data::Image> img, ImageObject* image) {
  if (!img || image == nullptr) return refuse("ToVornImage", "no image to convert");
  if (!describesEveryAxis(*img)) return refuse("ToVornImage", "host image geometry incomplete");
  const unsigned int n = img->getDimension();
  const std::string typeName = img->getPixelType().string();
  std::cout << "img->getPixelType().string()" << typeName << std::endl;
  const std::vector<double>& origin = img->getCRefOrigin();
  const std::vector<double>& spacing = img->getCRefSpacing();
  Box box(n);
  for (unsigned int i = 0; i < n; ++i) {
    box.m_start[i] = static_cast<long>(origin[i]);  // truncated toward zero
    box.m_size[i] = static_cast<unsigned long>(img->getCRefSize()[i]);
  }
  // restore(type, box, buffer) frees nothing: an owned buffer would otherwise be lost here.
  image->ReleaseDataBuffer();
  image->restore(getPixelType(typeName), box, img->getBuffer());
  for (unsigned int i = 0; i < n; ++i) {
    image->setOrigin(i, throughFloat(origin[i]));
    image->setSpacing(i, throughFloat(spacing[i]));
  }
  image->manageItsBuffer(false);
}

void FromVornImage(const ImageObject* image, boost::shared_ptr<data::Image> img) {
  if (!img || image == nullptr) return refuse("FromVornImage", "no image to convert");
  const unsigned int n = image->getDimension();
  if (n > 255) return refuse("FromVornImage", "more axes than the host image holds");
  img->setDimension(static_cast<unsigned char>(n));
  if (n != 0) {
    std::vector<double> spacing(n, 1.0), origin(n, 0.0);
    std::vector<int> size(n, 0);
    const Box& region = image->getBufferedRegion();
    for (unsigned int i = 0; i < n; ++i) {
      origin[i] = static_cast<double>(region.m_start[i]);
      size[i] = static_cast<int>(region.m_size[i]);
      spacing[i] = image->getSpacing()[i];
    }
    img->setCRefSize(size);
    img->setCRefOrigin(origin);
    img->setCRefSpacing(spacing);
  }
  std::string name = getTypeIdName(image->getPointType());
  if (name == "short int") name = zelTools::makeDynamicType<short>().string();
  img->setPixelType(zelTools::makeDynamicType<std::string>(name));
  img->setBuffer(const_cast<void*>(image->getBuffer()));
  // The image is taken as const, yet it must give up its buffer now that the host frees it.
  const_cast<ImageObject*>(image)->manageItsBuffer(false);
}

}  // namespace vorn

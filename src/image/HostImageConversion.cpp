#include "vorn/HostImageConversion.hpp"

#include <climits>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <zelData/Image.hpp>
#include <zelTools/DynamicType.hpp>

#include "image/SizeArithmetic.hpp"
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

// A host image that no buffer can match is refused whole, by exception, naming what is wrong.
[[noreturn]] void impossible(const char* operation, const std::string& problem) {
  throw std::invalid_argument(std::string(operation) + " : " + problem);
}

template <class T>
std::string text(T value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

long hostStart(double origin, unsigned int axis) {
  // Truncation toward zero is defined only inside long's range; NaN is outside every range.
  if (!(origin >= -0x1p63 && origin < 0x1p63)) {
    impossible("ToVornImage",
               "host origin " + text(origin) + " on axis " + text(axis) + " is no start index");
  }
  return static_cast<long>(origin);
}

unsigned long hostSize(int size, unsigned int axis) {
  if (size < 0) {
    impossible("ToVornImage",
               "host size " + text(size) + " on axis " + text(axis) + " is impossible");
  }
  return static_cast<unsigned long>(size);
}

std::string sizesText(const Box& box) {
  std::string sizes;
  for (unsigned int i = 0; i < box.m_dimension; ++i) {
    sizes += (i == 0 ? "" : " x ") + text(box.m_size[i]);
  }
  return sizes;
}

// The pixel count, and then the byte count, must fit, and pixels need a buffer.
void checkHostPixels(const Box& box, PixelType::Type type, const void* buffer) {
  unsigned long count = 0;
  std::size_t bytes = 0;
  if (!detail::checkedPixelCount(box, count)) {
    impossible("ToVornImage",
               "host sizes " + sizesText(box) + " multiply to more pixels than can be counted");
  }
  if (!detail::checkedPixelBytes(type, count, bytes)) {
    impossible("ToVornImage", "host image of " + text(count) + " pixels of " + getTypeIdName(type) +
                                  " needs more bytes than memory can hold");
  }
  if (count != 0 && buffer == nullptr) {
    impossible("ToVornImage", "host image of " + text(count) + " pixels has no buffer");
  }
}

Box hostBox(const data::Image& img, PixelType::Type type) {
  const unsigned int n = img.getDimension();
  Box box(n);
  for (unsigned int i = 0; i < n; ++i) {
    box.m_start[i] = hostStart(img.getCRefOrigin()[i], i);
    box.m_size[i] = hostSize(img.getCRefSize()[i], i);
  }
  checkHostPixels(box, type, img.getBuffer());
  return box;
}

// The host holds sizes as int; a larger one would wrap into a negative host size.
std::vector<int> hostSizes(const Box& region) {
  std::vector<int> sizes(region.m_dimension, 0);
  for (unsigned int i = 0; i < region.m_dimension; ++i) {
    if (region.m_size[i] > static_cast<unsigned long>(INT_MAX)) {
      impossible("FromVornImage", "size " + text(region.m_size[i]) + " on axis " + text(i) +
                                      " does not fit in a host image");
    }
    sizes[i] = static_cast<int>(region.m_size[i]);
  }
  return sizes;
}

}  // namespace

void ToVornImage(boost::shared_ptr<data::Image> img, ImageObject* image) {
  if (!img || image == nullptr) return refuse("ToVornImage", "no image to convert");
  if (!describesEveryAxis(*img)) return refuse("ToVornImage", "host image geometry incomplete");
  const unsigned int n = img->getDimension();
  const std::string typeName = img->getPixelType().string();
  const PixelType::Type type = getPixelType(typeName);
  const Box box = hostBox(*img, type);  // before anything is written
  std::cout << "img->getPixelType().string()" << typeName << std::endl;
  const std::vector<double>& origin = img->getCRefOrigin();
  const std::vector<double>& spacing = img->getCRefSpacing();
  // restore(type, box, buffer) frees nothing: an owned buffer would otherwise be lost here.
  image->ReleaseDataBuffer();
  image->restore(type, box, img->getBuffer());
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
  const Box& region = image->getBufferedRegion();
  const std::vector<int> size = hostSizes(region);  // before anything is written
  img->setDimension(static_cast<unsigned char>(n));
  if (n != 0) {
    std::vector<double> spacing(n, 1.0), origin(n, 0.0);
    for (unsigned int i = 0; i < n; ++i) {
      origin[i] = static_cast<double>(region.m_start[i]);
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

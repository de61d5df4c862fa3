#include "vorn/ImageObject.hpp"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>

#include "image/SizeArithmetic.hpp"
#include "vorn/DefaultImageIO.hpp"

namespace vorn {
namespace {

std::size_t pixelBytesOrBadAlloc(PixelType::Type type, const Box& box) {
  unsigned long count = 0;
  std::size_t bytes = 0;
  if (!detail::checkedPixelCount(box, count) || !detail::checkedPixelBytes(type, count, bytes)) {
    throw std::bad_alloc();
  }
  return bytes;
}

// A box adopted with a caller's buffer must be one some buffer could match.
void checkDescribable(PixelType::Type type, const Box& box, const char* operation) {
  const std::string prefix = std::string("ImageObject::") + operation + " : ";
  unsigned long count = 0;
  std::size_t bytes = 0;
  if (!detail::checkedPixelCount(box, count)) {
    throw std::length_error(prefix + "the box's sizes multiply to more pixels than can be counted");
  }
  if (!detail::checkedPixelBytes(type, count, bytes)) {
    throw std::length_error(prefix + std::to_string(count) + " pixels of " + getTypeIdName(type) +
                            " need more bytes than a buffer can hold");
  }
}

}  // namespace

ImageObject::ImageObject()
    : m_pointType(PixelType::UNKNOWN),
      m_dimension(0),
      m_buffer(nullptr),
      m_spacing(nullptr),
      m_origin(nullptr),
      m_pixelNumber(0),
      m_imageIO(new DefaultImageIO(this)),
      m_manageItsBuffer(true) {
  m_dataObjectName = "ImageObject";
}

ImageObject::~ImageObject() {
  restore();
  ReleaseInformationBuffers();
  ReleaseDataBuffer();
}

void ImageObject::print() const {
  std::cout << "DataObjectName : " << m_dataObjectName << std::endl;
  DataObject::print();
  if (m_imageIO->isDumped()) {
    std::cout << "Image is dumped " << std::endl;
    return;
  }
  std::cout << "Dimension : " << m_dimension << std::endl;
  if (m_dimension == 0) {
    std::cout << "No data yet" << std::endl;
    return;
  }
  std::cout << "Pixel Type : " << getTypeIdName(m_pointType) << std::endl;
  std::cout << "Spacing : " << std::endl;
  for (unsigned int i = 0; i < m_dimension; ++i)
    std::cout << "v" << i << " = " << m_spacing[i] << " ";
  std::cout << std::endl;
  std::cout << "Origin : " << std::endl;
  for (unsigned int i = 0; i < m_dimension; ++i)
    std::cout << "o" << i << " = " << m_origin[i] << " ";
  std::cout << std::endl;
  std::cout << "Buffered Region : " << std::endl;
  m_bufferedRegion.printSelf(std::cout);
  std::cout << "Nb points : " << m_pixelNumber << "Data pointer adress : " << m_buffer << std::endl;
  std::cout << "Data Buffer Dumped = " << m_imageIO->isDumped() << std::endl;
  std::cout << std::endl;
}

PixelType::Type ImageObject::getPointType() const {
  restore();
  return m_pointType;
}

const Box& ImageObject::getBufferedRegion() const {
  restore();
  return m_bufferedRegion;
}

void ImageObject::initialize() {
  restore();
  ReleaseDataBuffer();
  ReleaseInformationBuffers();
  m_dataObjectName = "ImageObject";
  m_pointType = PixelType::UNKNOWN;
  m_dimension = 0;
  m_pixelNumber = 0;
  m_buffer = nullptr;
}

void ImageObject::Allocate(PixelType::Type type, Box box) {
  const std::size_t bytes = pixelBytesOrBadAlloc(type, box);  // before initialize() frees
  initialize();
  reDefine(type, box, new char[bytes]);
}

void ImageObject::reDefine(PixelType::Type type, Box box, void* buffer) {
  checkDescribable(type, box, "reDefine");
  restore();
  // The previous buffer goes whatever the flag says; the flag itself is kept.
  const bool manage = m_manageItsBuffer;
  m_manageItsBuffer = true;
  ReleaseDataBuffer();
  m_manageItsBuffer = manage;
  ReleaseInformationBuffers();
  describe(type, box, buffer);
}

void ImageObject::restore(PixelType::Type type, Box box, void* buffer) {
  checkDescribable(type, box, "restore");
  ReleaseInformationBuffers();
  describe(type, box, buffer);
}

void ImageObject::describe(PixelType::Type type, const Box& box, void* buffer) {
  m_dataObjectName = "ImageObject";
  m_dimension = box.m_dimension;
  m_pointType = type;
  m_bufferedRegion = box;
  m_buffer = buffer;
  computePixelNumber();
  AllocateInformationBuffers();
}

void ImageObject::restore() const {
  if (m_imageIO->isDumped()) m_imageIO->restore();
}

void ImageObject::dump() {
  if (!m_imageIO->isDumped()) m_imageIO->dump();
}

void ImageObject::import(const DataObject* source, ProcessObject* generator) {
  const ImageObject* image = dynamic_cast<const ImageObject*>(source);
  if (image == nullptr) return;
  if (image == this) {  // a copy of itself is itself; copying would read freed arrays
    setGenerator(generator);
    return;
  }
  restore();
  image->restore();
  std::size_t bytes = 0;
  if (!detail::checkedPixelBytes(image->m_pointType, image->m_pixelNumber, bytes)) {
    throw std::bad_alloc();
  }
  ReleaseInformationBuffers();
  m_dimension = image->m_dimension;
  AllocateInformationBuffers();
  m_bufferedRegion = image->m_bufferedRegion;
  std::copy(image->m_spacing, image->m_spacing + m_dimension, m_spacing);
  std::copy(image->m_origin, image->m_origin + m_dimension, m_origin);
  if (m_pixelNumber != image->m_pixelNumber || m_pointType != image->m_pointType) {
    replaceDataBuffer(image->m_pointType, image->m_pixelNumber);
  }
  if (bytes != 0) std::memcpy(m_buffer, image->getBuffer(), bytes);
  setGenerator(generator);
}

void ImageObject::replaceDataBuffer(PixelType::Type type, unsigned long pixelNumber) {
  ReleaseDataBuffer();
  m_pointType = type;
  m_pixelNumber = pixelNumber;
  try {
    AllocateDataBuffer();
  } catch (...) {
    initialize();  // an image without its pixels would claim bytes it does not have
    throw;
  }
}

unsigned int ImageObject::getDimension() const {
  restore();
  return m_dimension;
}

unsigned long ImageObject::getPixelNumber() const {
  restore();
  return m_pixelNumber;
}

void* ImageObject::getBuffer() {
  restore();
  return m_buffer;
}

const void* ImageObject::getBuffer() const {
  restore();
  return m_buffer;
}

const double* ImageObject::getSpacing() const {
  restore();
  return m_spacing;
}

double ImageObject::getSpacing(unsigned int axis) const {
  restore();
  return isAxis(axis, "getSpacing") ? m_spacing[axis] : 0.0;
}

void ImageObject::setSpacing(unsigned int axis, double value) {
  restore();
  if (isAxis(axis, "setSpacing")) m_spacing[axis] = value;
}

const double* ImageObject::getOrigin() const {
  restore();
  return m_origin;
}

double ImageObject::getOrigin(unsigned int axis) const {
  restore();
  return isAxis(axis, "getOrigin") ? m_origin[axis] : 0.0;
}

void ImageObject::setOrigin(unsigned int axis, double value) {
  restore();
  if (isAxis(axis, "setOrigin")) m_origin[axis] = value;
}

bool ImageObject::isAxis(unsigned int axis, const char* operation) const {
  if (axis < m_dimension) return true;
  std::cout << "ImageObject::" << operation << " axis " << axis << " out of range" << std::endl;
  return false;
}

void ImageObject::manageItsBuffer(bool manage) { m_manageItsBuffer = manage; }

bool ImageObject::getManageItsBuffer() { return m_manageItsBuffer; }

boost::shared_ptr<IImageIO> ImageObject::getImageIO() { return m_imageIO; }

void ImageObject::setImageIO(boost::shared_ptr<IImageIO> imageIO) {
  if (!imageIO) {
    std::cout << "ImageObject::setImageIO empty storage hook refused" << std::endl;
    return;
  }
  m_imageIO = imageIO;
}

void ImageObject::computePixelNumber() {
  unsigned long count = 0;
  if (m_dimension != 0 && !detail::checkedPixelCount(m_bufferedRegion, count)) {
    throw std::bad_alloc();
  }
  m_pixelNumber = count;
}

void ImageObject::AllocateDataBuffer() {
  std::size_t bytes = 0;
  if (!detail::checkedPixelBytes(m_pointType, m_pixelNumber, bytes)) throw std::bad_alloc();
  if (m_pixelNumber != 0) m_buffer = new char[bytes];
}

void ImageObject::AllocateInformationBuffers() {
  if (m_dimension == 0) {
    std::cout << "in ImageObject::AllocateInformationBuffers : m_dimension not correctly set"
              << std::endl;
    return;
  }
  if (m_spacing == nullptr) m_spacing = new double[m_dimension];
  if (m_origin == nullptr) m_origin = new double[m_dimension];
  // Filled directly, not through setSpacing/setOrigin: those restore first, and a hook that
  // rebuilds the image with restore(type, box, buffer) from inside its own restore() still
  // reports "dumped" here, which would send the image back into the hook without end.
  std::fill(m_spacing, m_spacing + m_dimension, 1.0);
  std::fill(m_origin, m_origin + m_dimension, 0.0);
}

void ImageObject::ReleaseDataBuffer() {
  if (!m_manageItsBuffer) return;
  delete[] static_cast<char*>(m_buffer);
  m_buffer = nullptr;
}

void ImageObject::ReleaseInformationBuffers() {
  delete[] m_spacing;
  m_spacing = nullptr;
  delete[] m_origin;
  m_origin = nullptr;
}

}  // namespace vorn

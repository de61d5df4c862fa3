// What the tests of the computing operators share: a source operator that hands out a copy of
// an image the test sets, so each operator runs through a real update(), and small helpers to
// build images and read their pixels.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "CoutCapture.hpp"
#include "vorn/Box.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"

using ImagePtr = boost::shared_ptr<vorn::ImageObject>;

// An image of element type T with the given sizes (axis 0 first) and pixels.
template <class T>
ImagePtr makeImage(std::vector<unsigned long> sizes, const std::vector<T>& pixels) {
  vorn::Box box(static_cast<unsigned int>(sizes.size()));
  for (unsigned axis = 0; axis < sizes.size(); ++axis) box.m_size[axis] = sizes[axis];
  ImagePtr image(new vorn::ImageObject);
  image->Allocate(vorn::returnPixelType<T>(), box);
  std::copy(pixels.begin(), pixels.end(), static_cast<T*>(image->getBuffer()));
  return image;
}

template <class T>
std::vector<T> pixelsOf(const vorn::ImageObject& image) {
  const T* first = static_cast<const T*>(image.getBuffer());
  return std::vector<T>(first, first + image.getPixelNumber());
}

inline ImagePtr dataOf(const vorn::Port* port) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(port->getData());
}

inline ImagePtr outputOf(vorn::ProcessObject& op, unsigned index = 0) {
  return dataOf(op.getOutputPort(index));
}

// Output 0 is a copy of `image`, spacing and origin included.
class ImageSource : public vorn::ProcessObject {
 public:
  explicit ImageSource(ImagePtr source) : m_image(source) {
    setName("ImageSource");
    addOutput("ImageObject");
  }
  void setImage(ImagePtr source) {
    m_image = source;
    setToInvalidated();
  }
  void generateData() override { outputOf(*this)->import(m_image.get(), this); }

 private:
  ImagePtr m_image;
};

// Connects `op`'s inputs to the sources in order.
inline void connectInputs(vorn::ProcessObject& op, std::initializer_list<ImageSource*> sources) {
  unsigned input = 0;
  for (ImageSource* source : sources) {
    op.getInputPort(input++)->connectTo(source->getOutputPort(0));
  }
}

// Updates `op` with the engine's timing lines kept off the test log; failures pass through.
inline void run(vorn::ProcessObject& op) {
  const CoutCapture quiet;
  op.update();
}

// What the operator tests share: small images, a source operator that hands out a copy of one
// so each operator runs through a real update(), and scratch folders for the file tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <ios>
#include <iterator>
#include <string>
#include <utility>
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
using Bytes = std::vector<unsigned char>;

// An image of element type T over `sizes` (axis 0 first) holding `values` over and over, with
// spacing 0.5 + axis and origin -1.25 * axis. Copied bytewise so that NaN payloads survive.
template <class T>
ImagePtr makeImage(const std::vector<unsigned long>& sizes, const std::vector<T>& values) {
  vorn::Box box(static_cast<unsigned int>(sizes.size()));
  for (unsigned axis = 0; axis < sizes.size(); ++axis) box.m_size[axis] = sizes[axis];
  ImagePtr image(new vorn::ImageObject);
  image->Allocate(vorn::returnPixelType<T>(), box);
  for (unsigned axis = 0; axis < sizes.size(); ++axis) {
    image->setSpacing(axis, 0.5 + axis);
    image->setOrigin(axis, -1.25 * axis);
  }
  char* out = static_cast<char*>(image->getBuffer());
  for (unsigned long k = 0; k < image->getPixelNumber(); ++k) {
    std::memcpy(out + k * sizeof(T), &values[k % values.size()], sizeof(T));
  }
  return image;
}

template <class T>
std::vector<T> pixelsOf(const vorn::ImageObject& image) {
  const T* first = static_cast<const T*>(image.getBuffer());
  return std::vector<T>(first, first + image.getPixelNumber());
}

template <class T>
std::vector<double> asDoubles(const vorn::ImageObject& image) {
  const std::vector<T> pixels = pixelsOf<T>(image);
  return {pixels.begin(), pixels.end()};
}

// The pixels of an image of any of the three types, as doubles.
inline std::vector<double> valuesOf(const vorn::ImageObject& image) {
  if (image.getPointType() == vorn::PixelType::UCHAR) return asDoubles<unsigned char>(image);
  if (image.getPointType() == vorn::PixelType::SHORT) return asDoubles<short>(image);
  return asDoubles<float>(image);
}

// The pixel bytes of an image, for bit-for-bit comparisons.
inline std::vector<char> pixelBytes(const vorn::ImageObject& image) {
  const char* pixels = static_cast<const char*>(image.getBuffer());
  return {pixels, pixels + vorn::getSizeOf(image.getPointType()) * image.getPixelNumber()};
}

inline void expectSameGeometry(const vorn::ImageObject& actual, const vorn::ImageObject& expected) {
  EXPECT_TRUE(actual.getBufferedRegion() == expected.getBufferedRegion());
  for (unsigned axis = 0; axis < expected.getDimension(); ++axis) {
    EXPECT_EQ(actual.getSpacing(axis), expected.getSpacing(axis)) << "axis " << axis;
    EXPECT_EQ(actual.getOrigin(axis), expected.getOrigin(axis)) << "axis " << axis;
  }
}

inline ImagePtr outputOf(vorn::ProcessObject& op, unsigned index = 0) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(op.getOutputPort(index)->getData());
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

// A new operator of type Op, given `parameters`, run on `image`; returns its output.
template <class Op>
ImagePtr runOn(const ImagePtr& image,
               const std::vector<std::pair<std::string, std::string>>& parameters) {
  ImageSource source(image);
  Op op;
  connectInputs(op, {&source});
  for (const auto& [name, value] : parameters) op.setParameterValue(name, value);
  run(op);
  return outputOf(op);
}

// Expects `action` to throw an E whose text holds each of `parts`.
template <class E, class Action>
void expectThrow(Action action, std::initializer_list<std::string> parts) {
  try {
    action();
    ADD_FAILURE() << "no exception; expected one saying: " << *parts.begin();
  } catch (const E& e) {
    for (const std::string& part : parts) {
      EXPECT_NE(std::string(e.what()).find(part), std::string::npos) << e.what();
    }
  }
}

inline void expectUpdateFailure(vorn::ProcessObject& op, const std::string& text) {
  expectThrow<std::ios_base::failure>([&op] { run(op); }, {text});
}

// A new empty folder under the system temporary folder, removed with everything in it.
class TempFolder {
 public:
  TempFolder() {
    static int counter = 0;
    m_path = std::filesystem::temp_directory_path() /
             ("vorn-test-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
    std::filesystem::create_directories(m_path);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  std::string file(const std::string& name) const { return (m_path / name).string(); }
  const std::filesystem::path& path() const { return m_path; }
  // The names of everything in the folder, sorted.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::filesystem::path m_path;
};

inline Bytes readBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

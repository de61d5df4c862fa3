// zelData/Image.hpp
//
// data::Image: the host framework's image, reduced to what vorn uses of it: a number of axes,
// a size, an origin and a spacing per axis, a named element type and a pixel buffer.
//
// The image owns its buffer: setBuffer() takes the given buffer over, and the image frees it
// (delete[] as char) when destroyed or given another buffer. Not copyable.
#pragma once

#include <vector>

#include "zelTools/DynamicType.hpp"

namespace data {

class Image {
 public:
  Image();
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  unsigned char getDimension() const;
  void setDimension(unsigned char dimension);
  zelTools::DynamicType getPixelType() const;
  void setPixelType(zelTools::DynamicType type);
  const std::vector<int>& getCRefSize() const;
  void setCRefSize(const std::vector<int>& size);
  const std::vector<double>& getCRefOrigin() const;
  void setCRefOrigin(const std::vector<double>& origin);
  const std::vector<double>& getCRefSpacing() const;
  void setCRefSpacing(const std::vector<double>& spacing);
  void* getBuffer() const;
  // Frees the buffer held so far (unless it is this same one) and takes `buffer` over.
  void setBuffer(void* buffer);

 private:
  unsigned char m_dimension;
  zelTools::DynamicType m_pixelType;
  std::vector<int> m_size;
  std::vector<double> m_origin;
  std::vector<double> m_spacing;
  void* m_buffer;  // owning
};

}  // namespace data

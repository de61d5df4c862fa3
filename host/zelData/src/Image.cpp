#include "zelData/Image.hpp"

namespace data {

Image::Image() : m_dimension(0), m_buffer(nullptr) {}

Image::~Image() { delete[] static_cast<char*>(m_buffer); }

unsigned char Image::getDimension() const { return m_dimension; }

void Image::setDimension(unsigned char dimension) { m_dimension = dimension; }

zelTools::DynamicType Image::getPixelType() const { return m_pixelType; }

void Image::setPixelType(zelTools::DynamicType type) { m_pixelType = type; }

const std::vector<int>& Image::getCRefSize() const { return m_size; }

void Image::setCRefSize(const std::vector<int>& size) { m_size = size; }

const std::vector<double>& Image::getCRefOrigin() const { return m_origin; }

void Image::setCRefOrigin(const std::vector<double>& origin) { m_origin = origin; }

const std::vector<double>& Image::getCRefSpacing() const { return m_spacing; }

void Image::setCRefSpacing(const std::vector<double>& spacing) { m_spacing = spacing; }

void* Image::getBuffer() const { return m_buffer; }

void Image::setBuffer(void* buffer) {
  if (buffer == m_buffer) return;
  delete[] static_cast<char*>(m_buffer);
  m_buffer = buffer;
}

}  // namespace data

#include "MemorySwapImageIO.hpp"

#include <cstring>

#include <vorn/ImageObject.hpp>

MemorySwapImageIO::MemorySwapImageIO(vorn::ImageObject* image) : vorn::IImageIO(image) {}

void MemorySwapImageIO::dump() {
  // Not dumped yet, so the image's accessors do not call back into the hook here.
  const unsigned int axes = m_image->getDimension();
  m_type = m_image->getPointType();
  m_box = m_image->getBufferedRegion();
  m_spacing.assign(m_image->getSpacing(), m_image->getSpacing() + axes);
  m_origin.assign(m_image->getOrigin(), m_image->getOrigin() + axes);
  const char* pixels = static_cast<const char*>(m_image->getBuffer());
  m_pixels.assign(pixels, pixels + vorn::getSizeOf(m_type) * m_image->getPixelNumber());
  m_image->initialize();  // frees the image's own buffer; a borrowed one is only dropped
  m_dumped = true;
}

void MemorySwapImageIO::restore() {
  ++m_restores;
  char* pixels = new char[m_pixels.size()];
  if (!m_pixels.empty()) std::memcpy(pixels, m_pixels.data(), m_pixels.size());
  m_image->manageItsBuffer(true);  // the new buffer is the image's to free
  m_image->restore(m_type, m_box, pixels);
  m_dumped = false;  // from here on the restoring setters are safe
  for (unsigned int axis = 0; axis < m_spacing.size(); ++axis) {
    m_image->setSpacing(axis, m_spacing[axis]);
    m_image->setOrigin(axis, m_origin[axis]);
  }
  m_pixels.clear();
}

bool MemorySwapImageIO::isDumped() { return m_dumped; }

int MemorySwapImageIO::getRestoreCount() const { return m_restores; }

// MemorySwapImageIO: an example storage hook, written as a client would write one to keep
// large images out of the way (compressed, paged to another store...) until they are used.
//
// dump() moves the image's pixels, box, pixel type, spacing and origin into memory the hook
// keeps, and empties the image. The next access of the image calls restore(), which rebuilds
// the image around a new buffer with ImageObject::restore(type, box, buffer) -- one of the
// operations that do not restore first, so the image does not call back into the hook -- then
// reports the image as no longer dumped before it sets spacing and origin through the image's
// ordinary (restoring) setters. After the round trip the image owns its buffer, even if it
// only borrowed one before (the borrowed buffer is left to its owner).
//
//   boost::shared_ptr<vorn::IImageIO> hook(new MemorySwapImageIO(image.get()));
//   image->setImageIO(hook);
//   image->dump();          // contents now held by the hook
//   image->getBuffer();     // restored here
#pragma once

#include <vector>

#include <vorn/Box.hpp>
#include <vorn/IImageIO.hpp>
#include <vorn/PixelType.hpp>

class MemorySwapImageIO : public vorn::IImageIO {
 public:
  explicit MemorySwapImageIO(vorn::ImageObject* image);

  void dump() override;
  void restore() override;
  bool isDumped() override;
  // Number of restore() calls so far.
  int getRestoreCount() const;

 private:
  bool m_dumped = false;
  int m_restores = 0;
  vorn::PixelType::Type m_type = vorn::PixelType::UNKNOWN;
  vorn::Box m_box;
  std::vector<double> m_spacing;
  std::vector<double> m_origin;
  std::vector<char> m_pixels;
};

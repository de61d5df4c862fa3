// vorn/IImageIO.hpp
//
// IImageIO: the storage hook of an image. A hook may move an image's contents elsewhere
// (dump) and must bring them back on demand (restore). The image asks isDumped() first every
// time, calls restore() before almost every access and dump() only when a client asks.
//
// Contract for subclasses: isDumped() is true exactly from a dump() that moved the contents
// until the following restore(); when restore() returns, the image is whole again. Inside
// restore() and dump() use only the image operations that do not restore first
// (ImageObject::restore(type, box, buffer), manageItsBuffer, getManageItsBuffer).
//
// Lifetime: the image owns its hook through a shared pointer; the hook only points back. A hook
// kept alive past its image (through ImageObject::getImageIO) must not be used after that.
#pragma once

#include "vorn/Export.hpp"

namespace vorn {

class ImageObject;

// An image's storage hook: moves its contents away (dump) and back (restore).
class VORN_API IImageIO {
 public:
  // The hook of `image` (not owned; the image owns its hook).
  explicit IImageIO(ImageObject* image);
  virtual ~IImageIO();

  // Brings the image's contents back; nothing when not dumped.
  virtual void restore() = 0;
  // Moves the image's contents away.
  virtual void dump() = 0;
  // Whether the contents are away.
  virtual bool isDumped() = 0;
  // The lock flag is stored for clients and subclasses; vorn itself never reads it.
  virtual void setLock(bool lock);
  // Whether a dump or restore is under way (the image must not call back).
  virtual bool isLocked();

 protected:
  ImageObject* m_image;  // back-pointer to the image served; the image owns this hook
  bool m_lock;           // set while a dump or restore is under way
};

}  // namespace vorn

// vorn/ImageObject.hpp
//
// ImageObject: the N-dimensional image, the one concrete data object of vorn. It holds a pixel
// type, a number of axes, the box its buffer covers, a spacing and an origin per axis, and one
// contiguous pixel buffer (getSizeOf(type) x pixel count bytes, allocated as new char[] and
// never cleared). Pixels are addressed only as a flat array.
//
//   vorn::ImageObject image;
//   vorn::Box box(2);
//   box.m_size[0] = 640;
//   box.m_size[1] = 480;
//   image.Allocate(vorn::PixelType::FLOAT, box);
//   float* pixels = static_cast<float*>(image.getBuffer());
//
// Storage hook: every image holds an IImageIO (a DefaultImageIO from construction on) that may
// move its contents away (dump) and bring them back (restore). Operations marked "restores"
// call restore() first, so a client never sees a dumped image's fields.
//
// Buffer ownership: while getManageItsBuffer() is true the image frees its buffer (delete[] as
// char). While it is false the buffer belongs to whoever supplied it (the host image after a
// conversion) and the image never frees it -- except through reDefine(), see there. Buffers that
// Allocate or import create while the flag is false are the caller's to free.
//
// Sizes: pixel and byte counts never wrap. A box whose pixel count does not fit in unsigned long,
// or whose getSizeOf(type) x pixel count bytes exceed PTRDIFF_MAX, describes no possible buffer:
// every operation below refuses it before changing anything (Allocate and import with
// std::bad_alloc, reDefine and restore with std::length_error), so the image stays as it was.
//
// Not thread-safe: an image is used from one thread at a time.
#pragma once

#include <boost/shared_ptr.hpp>

#include "vorn/Box.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/IImageIO.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {

// An N-dimensional image of 8-bit unsigned, 16-bit signed or float pixels.
class VORN_API ImageObject : public DataObject {
 public:
  // Empty image: dimension 0, pixel type UNKNOWN, no buffers, owning flag true.
  ImageObject();
  // Restores, then frees the spacing, origin and an owned pixel buffer.
  ~ImageObject() override;
  // Not copyable: the buffers have one owner. Use import() for a deep copy.
  ImageObject(const ImageObject&) = delete;
  ImageObject& operator=(const ImageObject&) = delete;

  // Both forms: "DataObjectName : ...", the generator line, then either "Image is dumped " or
  // the description. Does not restore: a dumped image prints as such.
  void print() const override;
  PixelType::Type getPointType() const override;  // restores
  const Box& getBufferedRegion() const override;  // restores

  // Restores; frees an owned buffer, the spacing and the origin, and resets to an empty image.
  // A buffer the image does not own is only dropped. The box, hook and flag keep their values.
  void initialize();
  // Restores; initialize(), then a new uninitialised buffer for `box`, adopted by reDefine().
  // A size that does not fit throws std::bad_alloc before anything changes. Running out of
  // memory for a size that fits throws it after initialize(), leaving the image empty: the old
  // and the new buffer never have to exist together.
  void Allocate(PixelType::Type type, Box box);
  // Restores; adopts `buffer` (the pointer, nothing copied) as the pixels of `type` over `box`,
  // with spacing 1.0 and origin 0.0 on every axis. The ownership flag keeps its value. A box no
  // buffer can match throws std::length_error; the image and `buffer` stay as they were.
  // HAZARD: the previous buffer is freed even when the image does not own it. Never reDefine an
  // image whose buffer another owner still uses (such as one filled by ToVornImage); use
  // initialize() or Allocate() there.
  void reDefine(PixelType::Type type, Box box, void* buffer);
  // Re-describes the image around `buffer` without restoring and without freeing the previous
  // buffer (its pointer is simply replaced: call ReleaseDataBuffer() first if the image owns
  // one). Meant for storage hooks and host conversion. Refuses a box like reDefine().
  void restore(PixelType::Type type, Box box, void* buffer);
  // Brings a dumped image back through its hook; does nothing when it is not dumped.
  void restore() const;
  // Hands the contents to the hook unless the hook already reports them dumped.
  void dump();
  // Restores both; makes this image a deep copy of `source` (one block copy of the pixels,
  // reusing the present buffer when type and pixel count match) and sets `generator`.
  // A source that is null or not an image leaves this image unchanged, and so does one whose
  // byte count does not fit (std::bad_alloc). Running out of memory leaves it empty, as
  // Allocate() does. The generator is only recorded: keep it alive as long as this image may be
  // asked to update.
  void import(const DataObject* source, ProcessObject* generator);

  unsigned int getDimension() const;     // restores
  unsigned long getPixelNumber() const;  // restores
  void* getBuffer();                     // restores
  const void* getBuffer() const;         // restores
  // Spacing and origin, one value per axis (null arrays while the dimension is 0). An axis at
  // or above getDimension() is refused with one line: getters answer 0.0, setters change
  // nothing. All restore.
  const double* getSpacing() const;
  // The spacing of `axis`.
  double getSpacing(unsigned int axis) const;
  // Sets the spacing of `axis`.
  void setSpacing(unsigned int axis, double value);
  // The origin, one value per axis.
  const double* getOrigin() const;
  // The origin of `axis`.
  double getOrigin(unsigned int axis) const;
  // Sets the origin of `axis`.
  void setOrigin(unsigned int axis, double value);

  // Whether the image frees its buffer (see Buffer ownership above).
  void manageItsBuffer(bool manage);
  // Whether the image frees its buffer.
  bool getManageItsBuffer();
  // The storage hook.
  boost::shared_ptr<IImageIO> getImageIO();
  // Replaces the hook. An empty pointer is refused with one line: the image always has a hook.
  void setImageIO(boost::shared_ptr<IImageIO> imageIO);

  // Frees the pixel buffer only while the image owns it; does not restore. Public because a
  // storage hook or a host conversion must call it before restore(type, box, buffer), which
  // frees nothing, whenever the image may own the buffer being replaced.
  void ReleaseDataBuffer();

 private:
  // Low-level buffer operations behind the public ones; none of them restores.

  // The product of the box's sizes; std::bad_alloc, changing nothing, when it does not fit.
  void computePixelNumber();
  // Allocates getSizeOf(type) x pixel count bytes when the count is not 0, overwriting the
  // pointer without freeing it: release first. A byte count that does not fit throws
  // std::bad_alloc before the pointer changes.
  void AllocateDataBuffer();
  // Allocates spacing and origin where missing and sets 1.0 and 0.0 on every axis; with
  // dimension 0 it writes a message and allocates nothing.
  void AllocateInformationBuffers();
  void ReleaseInformationBuffers();

  bool isAxis(unsigned int axis, const char* operation) const;
  void describe(PixelType::Type type, const Box& box, void* buffer);
  void replaceDataBuffer(PixelType::Type type, unsigned long pixelNumber);

  Box m_bufferedRegion;  // start and size per axis of the buffer
  PixelType::Type m_pointType;
  unsigned int m_dimension;               // always m_bufferedRegion.m_dimension once defined
  void* m_buffer;                         // owning while m_manageItsBuffer, borrowed otherwise
  double* m_spacing;                      // owning array of m_dimension values, or null
  double* m_origin;                       // owning array of m_dimension values, or null
  unsigned long m_pixelNumber;            // product of the buffered region's sizes
  boost::shared_ptr<IImageIO> m_imageIO;  // never empty; shared with getImageIO() callers
  bool m_manageItsBuffer;
};

}  // namespace vorn

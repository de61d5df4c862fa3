// vorn/HostImageConversion.hpp
//
// Moving images across the border with the host framework (data::Image) without copying a
// pixel: both sides end up pointing at the same buffer, which belongs to the host image. The
// ImageObject never frees it afterwards, so the host image must outlive every use of the buffer
// through the ImageObject.
//
//   boost::shared_ptr<data::Image> host = ...;
//   vorn::ImageObject image;
//   vorn::ToVornImage(host, &image);    // image borrows host's pixels
//
// HAZARD: FromVornImage of an image that only borrows its buffer (for instance one filled by
// ToVornImage) hands a second host image a buffer that the first one still owns; both would
// free it. Keep such a second host image alive no longer than the first, or convert images that
// own their buffer.
#pragma once

#include <boost/shared_ptr.hpp>

#include "vorn/Export.hpp"

namespace data {
class Image;
}

namespace vorn {

class ImageObject;

// Describes `img` in `image`: dimension, the box (starts from the host origin truncated toward
// zero, sizes), pixel type parsed from the host type name, the host's buffer, spacing and origin
// rounded through float; `image` stops managing its buffer. Writes one trace line with the host
// type name. A buffer `image` owned before is freed rather than lost. An empty `img`, a null
// `image`, or a host image with fewer sizes, origins or spacings than axes is refused with one
// line. A host image no buffer can match (a negative size, sizes whose pixel or byte count does
// not fit, pixels without a buffer, an origin beyond a start index) throws
// std::invalid_argument naming the value, before anything is printed or changed.
VORN_API void ToVornImage(boost::shared_ptr<data::Image> img, ImageObject* image);

// Describes `image` in `img`: dimension, sizes, the box starts as origin, spacing, the host type
// named like the pixel type ("short int" taken as the host's own 16-bit name), and the buffer,
// which `img` takes over; `image` stops managing it. An unknown pixel type throws the host's
// std::invalid_argument after the geometry has been written, with `image` still owning its
// buffer. An empty `img`, a null `image` or one of more than 255 axes is refused with one line;
// a size above the host's int range throws std::invalid_argument before `img` changes.
VORN_API void FromVornImage(const ImageObject* image, boost::shared_ptr<data::Image> img);

}  // namespace vorn

// vorn/RestrictImageToRoi.hpp
//
// Restricting an image to a mask region: every pixel whose mask byte is 0 becomes the zero of
// the image's type (+0.0 for float), in place; every other pixel keeps all of its bits
// (negative values, -0.0 and NaN included). One pass, no allocation, vectorised.
//
//   vorn::restrictImageToRoi(image, maskRoi->getMaskImage());
#pragma once

#include <boost/shared_ptr.hpp>

#include "vorn/Export.hpp"

namespace vorn {

class ImageObject;

// Reads the mask's buffer as one unsigned char per pixel of `image`, whatever the mask's own
// pixel type. Unsupported pixel types write "ERROR restrictImageToRoi :  UNSUPPORTED PIXEL
// TYPE !!!" with no line end and change nothing. A missing image, or a mask whose buffer holds
// fewer bytes than the image has pixels, is refused with one line and changes nothing.
VORN_API void restrictImageToRoi(boost::shared_ptr<ImageObject> image,
                                 boost::shared_ptr<ImageObject const> mask);

// For k below count: buffer[k] (a T) becomes T's zero where mask[k] (an M) is 0. Provided for
// (short, unsigned char), (float, unsigned char) and (unsigned char, unsigned char) only.
template <class T, class M>
VORN_API void mergeBuffer(void* buffer, const void* mask, unsigned long count);

}  // namespace vorn

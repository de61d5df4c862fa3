// vorn/MaskRoi.hpp
//
// MaskRoi: a region of interest given by a mask image, one unsigned char per pixel of the image
// it applies to (0 outside, anything else inside). Its bounding box is the mask image's own
// buffered region, so it follows the image when the image is redefined. The mask's type and size
// are not checked here.
//
// Also maps the class names "MaskRoi" and "BoxRoi" for the host's zelTools::isMapping.
#pragma once

#include <string>

#include <boost/shared_ptr.hpp>
#include <zelTools/TypeMapping.hpp>

#include "vorn/Box.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/RoiObject.hpp"

namespace vorn {

class DataObject;
class ImageObject;

// A region of interest given by a mask image.
class VORN_API MaskRoi : public RoiObject {
 public:
  MaskRoi();

  // Keeps `data` when it is an image; anything else leaves the region without mask.
  void setMaskImage(boost::shared_ptr<DataObject> data);
  // The mask image, or null while there is none.
  boost::shared_ptr<ImageObject> getMaskImage() const;
  // The mask image's buffered region; the empty box while there is no mask image.
  const Box& getBoundingBox() const override;
  // "Region of interest de type 'image mask'", the bounding box's form, then the mask image's
  // print on standard output (whatever `os` is). Without mask image only the first two.
  void printSelf(std::ostream& os) const override;

 private:
  boost::shared_ptr<ImageObject> m_maskImage;  // shared with whoever else holds the image
  Box m_emptyBoundingBox;                      // answered while there is no mask image
};

}  // namespace vorn

namespace zelTools {

// Whole, case-sensitive class names.
template <>
VORN_API bool isMapping<vorn::MaskRoi, std::string>(const std::string& key);
template <>
VORN_API bool isMapping<vorn::BoxRoi, std::string>(const std::string& key);

}  // namespace zelTools

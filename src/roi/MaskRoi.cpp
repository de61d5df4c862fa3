#include "vorn/MaskRoi.hpp"

#include "vorn/ImageObject.hpp"

namespace vorn {

MaskRoi::MaskRoi() = default;

void MaskRoi::setMaskImage(boost::shared_ptr<DataObject> data) {
  m_maskImage = boost::dynamic_pointer_cast<ImageObject>(data);
}

boost::shared_ptr<ImageObject> MaskRoi::getMaskImage() const { return m_maskImage; }

const Box& MaskRoi::getBoundingBox() const {
  return m_maskImage ? m_maskImage->getBufferedRegion() : m_emptyBoundingBox;
}

void MaskRoi::printSelf(std::ostream& os) const {
  os << "Region of interest de type 'image mask'";
  getBoundingBox().printSelf(os);
  if (m_maskImage) m_maskImage->print();
}

}  // namespace vorn

namespace zelTools {

template <>
bool isMapping<vorn::MaskRoi, std::string>(const std::string& key) {
  return key == "MaskRoi";
}

template <>
bool isMapping<vorn::BoxRoi, std::string>(const std::string& key) {
  return key == "BoxRoi";
}

}  // namespace zelTools

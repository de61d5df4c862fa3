#include "vorn/BoxRoi.hpp"

namespace vorn {

BoxRoi::BoxRoi() = default;

const Box& BoxRoi::getBox() const { return m_box; }

void BoxRoi::setBox(const Box& box) { m_box = box; }

const Box& BoxRoi::getBoundingBox() const { return m_box; }

void BoxRoi::printSelf(std::ostream& os) const {
  os << "Region of interest de type 'box'";
  m_box.printSelf(os);
}

}  // namespace vorn

// vorn/BoxRoi.hpp
//
// BoxRoi: a region of interest that is a box; its bounding box is the box itself.
#pragma once

#include "vorn/Box.hpp"
#include "vorn/RoiObject.hpp"

namespace vorn {

// A region of interest that is a box.
class VORN_API BoxRoi : public RoiObject {
 public:
  // The empty box (no axes).
  BoxRoi();

  // The box; its own bounding box.
  const Box& getBox() const;
  // Deep copy of `box`.
  void setBox(const Box& box);
  const Box& getBoundingBox() const override;
  // "Region of interest de type 'box'" followed, on the same line, by the box's own form.
  void printSelf(std::ostream& os) const override;

 private:
  Box m_box;
};

}  // namespace vorn

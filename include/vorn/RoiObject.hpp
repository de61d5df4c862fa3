// vorn/RoiObject.hpp
//
// RoiObject: a region of interest, the part of an output an operator is asked to compute.
// Regions are shared through boost::shared_ptr<RoiObject const> and never copied: a client that
// changes a region it handed out changes it for every holder.
#pragma once

#include <ostream>

#include "vorn/Export.hpp"

namespace vorn {

class Box;

// A region of interest: something with a bounding box.
class VORN_API RoiObject {
 public:
  virtual ~RoiObject();
  // A box that holds the region.
  virtual const Box& getBoundingBox() const = 0;
  // A hook for derived regions; does nothing here and nothing in vorn calls it.
  virtual void updateROI(const Box& box);
  // Writes a description of the region to `os`.
  virtual void printSelf(std::ostream& os) const = 0;
};

}  // namespace vorn

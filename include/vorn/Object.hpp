// vorn/Object.hpp
//
// Object: the abstract root shared by data objects and operators. Both can be asked to
// update(); what that means is theirs to say.
#pragma once

#include "vorn/Export.hpp"

namespace vorn {

// The root of operators and data objects: what can be updated.
class VORN_API Object {
 public:
  virtual ~Object();
  // Brings the object up to date.
  virtual void update() = 0;
};

}  // namespace vorn

// vorn/Object.hpp
//
// Object: the abstract root shared by data objects and operators. Both can be asked to
// update(); what that means is theirs to say.
#pragma once

#include "vorn/Export.hpp"

namespace vorn {

class VORN_API Object {
 public:
  virtual ~Object();
  virtual void update() = 0;
};

}  // namespace vorn

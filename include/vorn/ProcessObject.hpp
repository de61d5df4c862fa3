// vorn/ProcessObject.hpp
//
// ProcessObject: base of every operator in a vorn pipeline. A client derives from it and
// implements generateData(), the computation.
#pragma once

#include "vorn/Export.hpp"
#include "vorn/Object.hpp"

namespace vorn {

class VORN_API ProcessObject : public Object {
 public:
  ProcessObject();
  ~ProcessObject() override;

  // Computes the operator when it is invalidated, then marks it up to date.
  void update() override;
  virtual bool isInvalidated();
  virtual void generateData() = 0;

 protected:
  bool m_invalidated;  // a new operator is invalidated
};

}  // namespace vorn

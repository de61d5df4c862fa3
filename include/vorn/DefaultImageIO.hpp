// vorn/DefaultImageIO.hpp
//
// DefaultImageIO: the hook every image gets at construction. It never moves anything: dump()
// and restore() do nothing and isDumped() is always false.
#pragma once

#include "vorn/IImageIO.hpp"

namespace vorn {

class VORN_API DefaultImageIO : public IImageIO {
 public:
  explicit DefaultImageIO(ImageObject* image);
  ~DefaultImageIO() override;

  void restore() override;
  void dump() override;
  bool isDumped() override;
};

}  // namespace vorn

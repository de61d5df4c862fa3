// vorn/DefaultImageIO.hpp
//
// DefaultImageIO: the hook every image gets at construction. It never moves anything: dump()
// and restore() do nothing and isDumped() is always false.
#pragma once

#include "vorn/IImageIO.hpp"

namespace vorn {

// The storage hook every image starts with: everything stays in memory.
class VORN_API DefaultImageIO : public IImageIO {
 public:
  // The hook of `image` (not owned).
  explicit DefaultImageIO(ImageObject* image);
  ~DefaultImageIO() override;

  // Nothing to bring back: the contents never left.
  void restore() override;
  // Keeps everything in memory: nothing to move.
  void dump() override;
  // Always false.
  bool isDumped() override;
};

}  // namespace vorn

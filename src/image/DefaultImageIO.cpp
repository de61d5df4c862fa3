#include "vorn/DefaultImageIO.hpp"

namespace vorn {

DefaultImageIO::DefaultImageIO(ImageObject* image) : IImageIO(image) {}

DefaultImageIO::~DefaultImageIO() = default;

void DefaultImageIO::restore() {}

void DefaultImageIO::dump() {}

bool DefaultImageIO::isDumped() { return false; }

}  // namespace vorn

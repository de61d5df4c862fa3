#include "vorn/RoiObject.hpp"

namespace vorn {

RoiObject::~RoiObject() = default;

void RoiObject::updateROI(const Box&) {}

}  // namespace vorn

#include "vorn/Object.hpp"

namespace vorn {

Object::~Object() = default;

}  // namespace vorn

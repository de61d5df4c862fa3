#include "vorn/operators/LocalOperator.hpp"

namespace vorn {

LocalOperator::~LocalOperator() = default;

}  // namespace vorn

#include "vorn/IObserver.hpp"

namespace vorn {

IObserver::~IObserver() = default;

}  // namespace vorn

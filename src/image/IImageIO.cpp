#include "vorn/IImageIO.hpp"

namespace vorn {

IImageIO::IImageIO(ImageObject* image) : m_image(image), m_lock(false) {}

IImageIO::~IImageIO() = default;

void IImageIO::setLock(bool lock) { m_lock = lock; }

bool IImageIO::isLocked() { return m_lock; }

}  // namespace vorn

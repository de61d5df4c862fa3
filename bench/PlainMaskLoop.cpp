#include "PlainMaskLoop.hpp"

namespace {

template <class T>
void keep(T* pixels, const unsigned char* inside, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) pixels[k] = inside[k] ? pixels[k] : T(0);
}

}  // namespace

void plainMaskLoop(std::uint8_t* pixels, const unsigned char* inside, std::size_t count) {
  keep(pixels, inside, count);
}
void plainMaskLoop(std::int16_t* pixels, const unsigned char* inside, std::size_t count) {
  keep(pixels, inside, count);
}
void plainMaskLoop(float* pixels, const unsigned char* inside, std::size_t count) {
  keep(pixels, inside, count);
}

// The baseline of the mask benchmark: the plain loop, built for the running CPU.
#pragma once

#include <cstddef>
#include <cstdint>

void plainMaskLoop(std::uint8_t* pixels, const unsigned char* inside, std::size_t count);
void plainMaskLoop(std::int16_t* pixels, const unsigned char* inside, std::size_t count);
void plainMaskLoop(float* pixels, const unsigned char* inside, std::size_t count);

// Fuzz target: arbitrary bytes as a .dcm file given to vorn::readImageFile.
#include <cstddef>
#include <cstdint>

#include "ImageFileFuzzing.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzzing::readAsImageFile(data, size, ".dcm");
}

// Shared by the image file fuzz targets: the input becomes a file with the given extension,
// read with vorn::readImageFile. Refusal (ImageFileError) is the expected outcome of most
// inputs; any other exception escapes and libFuzzer reports it, as it does crashes and leaks.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "vorn/ImageObject.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace fuzzing {

// One file per process, so parallel fuzzing jobs do not share it.
inline std::string scratchFile(const char* extension) {
  return (std::filesystem::temp_directory_path() /
          ("vorn-fuzz-" + std::to_string(::getpid()) + extension))
      .string();
}

inline int readAsImageFile(const std::uint8_t* data, std::size_t size, const char* extension) {
  static const std::string path = scratchFile(extension);
  {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  vorn::ImageObject image;
  try {
    vorn::readImageFile(path, image);
    // Touch every pixel so a buffer shorter than the image claims shows up under ASan.
    const auto* pixels = static_cast<const unsigned char*>(image.getBuffer());
    const std::size_t bytes = image.getPixelNumber() * vorn::getSizeOf(image.getPointType());
    volatile unsigned char sum = 0;
    for (std::size_t i = 0; i < bytes; ++i) sum = static_cast<unsigned char>(sum + pixels[i]);
  } catch (const vorn::ImageFileError&) {
  }
  std::filesystem::remove(path);
  return 0;
}

}  // namespace fuzzing

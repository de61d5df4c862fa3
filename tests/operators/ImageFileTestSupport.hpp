// Scratch folders, raw file access and small images for the image file and swap tests.
#pragma once

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "vorn/ImageObject.hpp"

// A new empty folder under the system temporary folder, removed with everything in it.
class TempFolder {
 public:
  TempFolder() {
    static int counter = 0;
    m_path = std::filesystem::temp_directory_path() /
             ("vorn-test-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string file(const std::string& name) const { return (m_path / name).string(); }
  const std::filesystem::path& path() const { return m_path; }
  // The names of everything in the folder.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

 private:
  std::filesystem::path m_path;
};

inline std::vector<unsigned char> readBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// An image of `type` over `sizes` holding `values` (converted), with spacing 0.5 + axis and
// origin -1.25 * axis: values exact in a 32-bit float.
template <class T>
void fillImage(vorn::ImageObject& image, vorn::PixelType::Type type,
               const std::vector<unsigned long>& sizes, const std::vector<T>& values) {
  vorn::Box box(static_cast<unsigned int>(sizes.size()));
  for (std::size_t axis = 0; axis < sizes.size(); ++axis) box.m_size[axis] = sizes[axis];
  image.Allocate(type, box);
  for (unsigned int axis = 0; axis < sizes.size(); ++axis) {
    image.setSpacing(axis, 0.5 + axis);
    image.setOrigin(axis, -1.25 * axis);
  }
  const unsigned long count = image.getPixelNumber();
  char* out = static_cast<char*>(image.getBuffer());
  for (unsigned long k = 0; k < count; ++k) {
    const T value = values[k % values.size()];
    std::memcpy(out + k * sizeof(T), &value, sizeof(T));
  }
}

// The pixel bytes of an image, for bit-for-bit comparisons.
inline std::vector<char> pixelBytes(const vorn::ImageObject& image) {
  const char* pixels = static_cast<const char*>(image.getBuffer());
  return {pixels, pixels + vorn::getSizeOf(image.getPointType()) * image.getPixelNumber()};
}

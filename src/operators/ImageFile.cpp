#include "vorn/operators/ImageFile.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "ImageFileCodecs.hpp"

namespace vorn {

ImageFileError::ImageFileError(const std::string& path, const std::string& problem)
    : std::runtime_error(path + ": " + problem), m_path(path) {}

const std::string& ImageFileError::getPath() const { return m_path; }

namespace detail {

bool multiplyChecked(std::uint64_t a, std::uint64_t b, std::uint64_t& product) {
  return !__builtin_mul_overflow(a, b, &product);
}

std::uint64_t inflateBound(std::uint64_t compressed) {
  // Deflate's densest code, runs of one byte, expands by at most 1032:1.
  std::uint64_t bound = 0;
  return multiplyChecked(compressed, 1032, bound) ? bound
                                                  : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace detail

namespace {

enum class FileKind { Png, Nifti, NiftiGz };
enum class TargetFormat { Png, Nifti, NiftiGz };

std::uint64_t regularFileSize(const std::string& path) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) throw ImageFileError(path, "no such file");
  // A FIFO or a device would block or never end.
  if (!std::filesystem::is_regular_file(status)) throw ImageFileError(path, "not a regular file");
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  if (error) throw ImageFileError(path, "cannot read its size: " + error.message());
  return size;
}

// Enough bytes to see a PNG signature and the whole NIfTI-1 header with its magic.
FileKind sniff(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw ImageFileError(path, std::string("cannot open: ") + std::strerror(errno));
  unsigned char bytes[348] = {};
  file.read(reinterpret_cast<char*>(bytes), sizeof bytes);
  const std::size_t count = static_cast<std::size_t>(file.gcount());
  if (count == 0) throw ImageFileError(path, "empty file");
  if (detail::isPngSignature(bytes, count)) return FileKind::Png;
  if (count >= 2 && bytes[0] == 0x1f && bytes[1] == 0x8b) return FileKind::NiftiGz;
  if (count == sizeof bytes && std::memcmp(bytes + 344, "n+1", 4) == 0) return FileKind::Nifti;
  if (count == sizeof bytes && std::memcmp(bytes + 344, "ni1", 4) == 0) {
    throw ImageFileError(path, "a NIfTI-1 header of a .hdr/.img pair, which is not supported");
  }
  throw ImageFileError(path, "not a PNG or NIfTI-1 file");
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TargetFormat targetFormat(const std::string& path) {
  const std::string name = lowercase(path);
  if (endsWith(name, ".png")) return TargetFormat::Png;
  if (endsWith(name, ".nii")) return TargetFormat::Nifti;
  if (endsWith(name, ".nii.gz")) return TargetFormat::NiftiGz;
  throw ImageFileError(path, "unsupported file name extension (expected .png, .nii or .nii.gz)");
}

// mkstemp makes files readable by their owner only; a written image should get the
// permissions any newly created file gets, which the umask decides.
mode_t newFileMode() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "Umask:") == 0) {
      return 0666 & ~static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    }
  }
  return 0644;
}

std::string createTemporaryFile(const std::string& target) {
  std::string name = target + ".tmpXXXXXX";
  const int descriptor = ::mkstemp(name.data());
  if (descriptor < 0) {
    throw ImageFileError(target, std::string("cannot create a temporary file in its folder: ") +
                                     std::strerror(errno));
  }
  ::fchmod(descriptor, newFileMode());  // on failure the file merely stays private
  ::close(descriptor);
  return name;
}

void encode(TargetFormat format, const ImageObject& image, const std::string& temporary,
            const std::string& target) {
  if (format == TargetFormat::Png) {
    detail::writePngFile(image, temporary, target);
  } else {
    detail::writeNiftiFile(image, temporary, format == TargetFormat::NiftiGz, target);
  }
}

// Moves the pixels `fresh` decoded into `image`, with their geometry: a copy would make a read
// need twice the image's memory. `image` keeps its generator and its ownership flag, as after
// import(). Only what cannot fail happens once `image` has been emptied.
void adoptPixels(ImageObject& fresh, ImageObject& image) {
  const PixelType::Type type = fresh.getPointType();
  const Box box = fresh.getBufferedRegion();
  image.initialize();
  fresh.manageItsBuffer(false);
  image.reDefine(type, box, fresh.getBuffer());
  for (unsigned int axis = 0; axis < fresh.getDimension(); ++axis) {
    image.setSpacing(axis, fresh.getSpacing(axis));
    image.setOrigin(axis, fresh.getOrigin(axis));
  }
}

}  // namespace

namespace detail {

std::string writeTemporaryImageFile(const ImageObject& image, const std::string& target) {
  const TargetFormat format = targetFormat(target);
  const std::string temporary = createTemporaryFile(target);
  try {
    encode(format, image, temporary, target);
  } catch (const std::bad_alloc&) {
    std::remove(temporary.c_str());
    throw ImageFileError(target, "not enough memory to encode the image");
  } catch (...) {
    std::remove(temporary.c_str());
    throw;
  }
  return temporary;
}

void commitTemporaryImageFile(const std::string& temporary, const std::string& target) {
  if (std::rename(temporary.c_str(), target.c_str()) == 0) return;
  const int error = errno;
  std::remove(temporary.c_str());
  throw ImageFileError(target, std::string("cannot replace the file: ") + std::strerror(error));
}

}  // namespace detail

void readImageFile(const std::string& path, ImageObject& image) {
  const std::uint64_t size = regularFileSize(path);
  const FileKind kind = sniff(path);
  ImageObject fresh;
  try {
    if (kind == FileKind::Png) {
      detail::readPngFile(path, size, fresh);
    } else {
      detail::readNiftiFile(path, kind == FileKind::NiftiGz, size, fresh);
    }
  } catch (const std::bad_alloc&) {
    throw ImageFileError(path, "not enough memory to read the image");
  }
  adoptPixels(fresh, image);
}

void writeImageFile(const ImageObject& image, const std::string& path) {
  detail::commitTemporaryImageFile(detail::writeTemporaryImageFile(image, path), path);
}

}  // namespace vorn

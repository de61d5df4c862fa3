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

constexpr std::size_t headBytes = 1024;  // enough for every signature in the table

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

const detail::Codec& codecOfContent(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw ImageFileError(path, std::string("cannot open: ") + std::strerror(errno));
  unsigned char head[headBytes] = {};
  file.read(reinterpret_cast<char*>(head), sizeof head);
  const std::size_t count = static_cast<std::size_t>(file.gcount());
  if (count == 0) throw ImageFileError(path, "empty file");
  for (const detail::Codec& codec : detail::codecs()) {
    if (codec.recognises != nullptr && codec.recognises(head, count)) return codec;
  }
  throw ImageFileError(path, "not a supported image file (" + detail::codecNames() + ")");
}

const detail::Codec& codecOfFolder(const std::string& path) {
  for (const detail::Codec& codec : detail::codecs()) {
    if (codec.readsFolders) return codec;
  }
  throw ImageFileError(path, "not a regular file");
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

const detail::Codec& codecOfName(const std::string& path) {
  const std::string name = lowercase(path);
  for (const detail::Codec& codec : detail::codecs()) {
    for (const std::string& extension : codec.extensions) {
      if (!endsWith(name, extension)) continue;
      if (codec.write == nullptr) {
        throw ImageFileError(path, std::string(codec.name) + " files are read, not written");
      }
      return codec;
    }
  }
  throw ImageFileError(
      path, "unsupported file name extension (expected " + detail::writableExtensions() + ")");
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
  const detail::Codec& codec = codecOfName(target);
  const std::string temporary = createTemporaryFile(target);
  try {
    codec.write(image, temporary, target);
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
  readImageFile(path, image, ImageReadOptions());
}

void readImageFile(const std::string& path, ImageObject& image, const ImageReadOptions& options) {
  std::error_code error;
  const bool folder = std::filesystem::is_directory(path, error);
  const std::uint64_t size = folder ? 0 : regularFileSize(path);
  const detail::Codec& codec = folder ? codecOfFolder(path) : codecOfContent(path);
  ImageObject fresh;
  try {
    codec.read(path, size, options, fresh);
  } catch (const std::bad_alloc&) {
    throw ImageFileError(path, "not enough memory to read the image");
  }
  adoptPixels(fresh, image);
}

void writeImageFile(const ImageObject& image, const std::string& path) {
  detail::commitTemporaryImageFile(detail::writeTemporaryImageFile(image, path), path);
}

}  // namespace vorn

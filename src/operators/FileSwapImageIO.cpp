#include "vorn/operators/FileSwapImageIO.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "vorn/ImageObject.hpp"

namespace vorn {
namespace {

// Large transfers go in pieces: one read or write call moves at most about 2 GB on Linux.
constexpr std::size_t pieceSize = std::size_t(1) << 30;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  ~Descriptor() {
    if (m_descriptor >= 0) ::close(m_descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return m_descriptor; }
  // Closes now, reporting what close says (a late write error shows only here).
  bool close() { return ::close(std::exchange(m_descriptor, -1)) == 0; }

 private:
  int m_descriptor;
};

bool writeAll(int descriptor, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(descriptor, data, std::min(size, pieceSize));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Reads exactly `size` bytes. An early end of file clears errno, so callers can tell it from
// a read error.
bool readAll(int descriptor, char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t got = ::read(descriptor, data, std::min(size, pieceSize));
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = 0;
    if (got <= 0) return false;
    data += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

std::runtime_error swapError(const std::string& what, const std::string& file, int error) {
  return std::runtime_error("FileSwapImageIO: " + what + " " + file + ": " + std::strerror(error));
}

}  // namespace

FileSwapImageIO::FileSwapImageIO(ImageObject* image, std::string directory)
    : IImageIO(image), m_directory(std::move(directory)) {}

FileSwapImageIO::~FileSwapImageIO() {
  if (!m_file.empty()) ::unlink(m_file.c_str());
}

void FileSwapImageIO::dump() {
  // Not dumped yet, so the image's accessors do not call back into the hook here.
  if (!m_file.empty() || m_image->getDimension() == 0) return;
  const std::size_t bytes = getSizeOf(m_image->getPointType()) * m_image->getPixelNumber();
  std::string file = (std::filesystem::path(swapFolder()) / "vorn-swap-XXXXXX").string();
  Descriptor descriptor(::mkstemp(file.data()));
  if (descriptor.get() < 0) throw swapError("cannot create swap file", file, errno);
  const bool written =
      writeAll(descriptor.get(), static_cast<const char*>(m_image->getBuffer()), bytes);
  const int error = errno;
  if (!written || !descriptor.close()) {
    const int reported = written ? errno : error;
    ::unlink(file.c_str());
    throw swapError("cannot write swap file", file, reported);
  }
  const unsigned int axes = m_image->getDimension();
  m_type = m_image->getPointType();
  m_box = m_image->getBufferedRegion();
  m_spacing.assign(m_image->getSpacing(), m_image->getSpacing() + axes);
  m_origin.assign(m_image->getOrigin(), m_image->getOrigin() + axes);
  m_image->initialize();  // frees the image's own buffer; a borrowed one is only dropped
  m_file = std::move(file);
}

void FileSwapImageIO::restore() {
  if (m_file.empty()) return;
  char* pixels = readSwapFile();
  m_image->manageItsBuffer(true);  // the new buffer is the image's to free
  m_image->restore(m_type, m_box, pixels);
  const std::string file = std::exchange(m_file, std::string());
  // No longer dumped, so the restoring setters are safe.
  for (unsigned int axis = 0; axis < m_spacing.size(); ++axis) {
    m_image->setSpacing(axis, m_spacing[axis]);
    m_image->setOrigin(axis, m_origin[axis]);
  }
  ::unlink(file.c_str());
}

bool FileSwapImageIO::isDumped() { return !m_file.empty(); }

const std::string& FileSwapImageIO::getSwapFile() const { return m_file; }

std::string FileSwapImageIO::swapFolder() const {
  return m_directory.empty() ? std::filesystem::temp_directory_path().string() : m_directory;
}

char* FileSwapImageIO::readSwapFile() {
  const std::size_t bytes = getSizeOf(m_type) * m_box.volume();
  Descriptor descriptor(::open(m_file.c_str(), O_RDONLY | O_CLOEXEC));
  if (descriptor.get() < 0 && errno == ENOENT) giveUp("is gone");
  if (descriptor.get() < 0) throw swapError("cannot open swap file", m_file, errno);
  struct stat status = {};
  if (::fstat(descriptor.get(), &status) != 0)
    throw swapError("cannot read swap file", m_file, errno);
  if (static_cast<std::size_t>(status.st_size) != bytes) {
    giveUp("holds " + std::to_string(status.st_size) + " bytes instead of " +
           std::to_string(bytes));
  }
  std::unique_ptr<char[]> pixels(new char[bytes]);
  if (!readAll(descriptor.get(), pixels.get(), bytes)) {
    if (errno == 0) giveUp("was cut short while being read");
    throw swapError("cannot read swap file", m_file, errno);
  }
  return pixels.release();
}

void FileSwapImageIO::giveUp(const std::string& why) {
  const std::string file = std::exchange(m_file, std::string());
  ::unlink(file.c_str());
  throw std::runtime_error("FileSwapImageIO: swap file " + file + " " + why +
                           "; the image's pixels are lost and it stays empty");
}

}  // namespace vorn

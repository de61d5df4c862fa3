// vorn/operators/FileSwapImageIO.hpp
//
// FileSwapImageIO: a storage hook that moves an image's pixels to a file on disk while it is
// dumped, so large intermediate images stop taking memory until they are used again.
//
//   boost::shared_ptr<vorn::IImageIO> hook(new vorn::FileSwapImageIO(image.get(), "/scratch"));
//   image->setImageIO(hook);
//   image->dump();       // pixels now in /scratch/vorn-swap-XXXXXX, the image's buffer freed
//   image->getBuffer();  // read back bit for bit into a new buffer, the file removed
//
// dump() writes the pixels to a new file in the folder (the system temporary folder when the
// folder is empty), keeps type, box, spacing and origin in memory, then empties the image. A
// dump that cannot write throws std::runtime_error naming the file and leaves the image whole
// and not dumped. An image with no axes has nothing to move: dump() leaves it as it is.
// After restore() the image owns its new buffer, even if it borrowed the one it had before.
//
// Sharp edges:
// - restore() throws std::runtime_error naming the file when it cannot read it back. A file
//   that is gone or has the wrong size cannot come back: the hook then gives the swap up and
//   the image stays empty, so the next access does not fail again. Other failures (no
//   permission, too many open files) keep the image dumped so that a later access may retry.
//   The image's destructor restores first, and a destructor cannot throw: an image destroyed
//   while its swap file cannot be read ends the program. Keep the folder safe from cleaners.
// - Destroying the hook while dumped (replacing it with setImageIO, say) removes the file and
//   with it the pixels; the image stays empty.
// - Like the image, not thread-safe.
#pragma once

#include <string>
#include <vector>

#include "vorn/Box.hpp"
#include "vorn/IImageIO.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// A storage hook that moves an image's pixels to a file while dumped.
class VORN_OPERATORS_API FileSwapImageIO : public IImageIO {
 public:
  // The hook of `image`, swapping into `directory` (empty: the system temporary folder).
  explicit FileSwapImageIO(ImageObject* image, std::string directory = "");
  // Removes a swap file still there.
  ~FileSwapImageIO() override;
  FileSwapImageIO(const FileSwapImageIO&) = delete;
  FileSwapImageIO& operator=(const FileSwapImageIO&) = delete;

  // Writes the pixels to a new file and frees them (see above).
  void dump() override;
  // Reads the pixels back and removes the file (see above).
  void restore() override;
  // Whether the pixels are in the file.
  bool isDumped() override;
  // The file holding the pixels; empty while nothing is swapped out.
  const std::string& getSwapFile() const;

 private:
  std::string swapFolder() const;
  char* readSwapFile();
  [[noreturn]] void giveUp(const std::string& why);

  std::string m_directory;
  std::string m_file;
  PixelType::Type m_type = PixelType::UNKNOWN;
  Box m_box;
  std::vector<double> m_spacing;
  std::vector<double> m_origin;
};

}  // namespace vorn

// Internals of the image files: the PNG and NIfTI-1 codecs, the size arithmetic they share to
// refuse lying headers before allocating, and the temporary-file writing the writer operator
// uses for its deferred commit.
#pragma once

#include <cstdint>
#include <string>

#include "vorn/ImageObject.hpp"

namespace vorn {
namespace detail {

// a * b, or false when the product does not fit in 64 bits.
bool multiplyChecked(std::uint64_t a, std::uint64_t b, std::uint64_t& product);
// The most bytes `compressed` bytes of deflate data can expand to (saturating).
std::uint64_t inflateBound(std::uint64_t compressed);

// Whether the first bytes of a file are a PNG signature (at least 8 bytes needed).
bool isPngSignature(const unsigned char* bytes, std::size_t count);

// The readers fill `image`, a fresh image; `fileSize` is the size of the file on disk. Every
// failure throws ImageFileError naming `path`.
void readPngFile(const std::string& path, std::uint64_t fileSize, ImageObject& image);
void readNiftiFile(const std::string& path, bool gzipped, std::uint64_t fileSize,
                   ImageObject& image);

// The writers create `temporary` anew; their errors name `target`, the file the user asked for.
void writePngFile(const ImageObject& image, const std::string& temporary,
                  const std::string& target);
void writeNiftiFile(const ImageObject& image, const std::string& temporary, bool gzipped,
                    const std::string& target);

// Writes `image` completely to a new temporary file beside `target` (format by the target's
// extension) and returns its name. On failure nothing is left behind.
std::string writeTemporaryImageFile(const ImageObject& image, const std::string& target);
// Renames `temporary` over `target`; on failure removes `temporary` and throws ImageFileError.
void commitTemporaryImageFile(const std::string& temporary, const std::string& target);

}  // namespace detail
}  // namespace vorn

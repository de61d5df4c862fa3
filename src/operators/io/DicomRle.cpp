// DICOM's RLE: each frame a 64-byte header of segment offsets, then one PackBits segment per
// byte plane (most significant byte of each sample first). Decoded here rather than by GDCM,
// whose RLE codec, as Debian builds it, aborts or crashes on malformed segments.
#include <cstring>

#include "ImageFileCodecs.hpp"

namespace vorn {
namespace detail {
namespace {

std::uint32_t little32(const unsigned char* bytes) {
  return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
         std::uint32_t{bytes[3]} << 24;
}

// One PackBits segment into `plane`; false when it gives fewer bytes than the plane holds.
bool unpack(const unsigned char* in, std::uint64_t size, std::vector<unsigned char>& plane) {
  std::uint64_t read = 0, written = 0;
  while (written < plane.size() && read < size) {
    const int control = static_cast<signed char>(in[read++]);
    if (control >= 0) {
      const std::uint64_t count = std::min<std::uint64_t>(
          {std::uint64_t(control) + 1, size - read, plane.size() - written});
      std::memcpy(plane.data() + written, in + read, count);
      read += std::uint64_t(control) + 1;
      written += count;
    } else if (control != -128 && read < size) {
      const std::uint64_t count =
          std::min<std::uint64_t>(std::uint64_t(1 - control), plane.size() - written);
      std::memset(plane.data() + written, in[read++], count);
      written += count;
    }
  }
  return written == plane.size();
}

}  // namespace

void decodeDicomRleFrame(const std::string& path, const std::vector<unsigned char>& fragment,
                         const DicomRleLayout& layout, unsigned char* out) {
  const std::uint32_t segments = fragment.size() >= 64 ? little32(fragment.data()) : 0;
  const std::uint32_t expected = layout.samples * layout.sampleBytes;
  if (segments != expected)
    throw ImageFileError(path, "DICOM RLE frame of " + std::to_string(segments) +
                                   " segments, where its samples need " + std::to_string(expected));
  std::vector<unsigned char> plane(layout.pixels);
  for (std::uint32_t k = 0; k < segments; ++k) {
    const std::uint64_t start = little32(fragment.data() + 4 + 4 * k);
    const std::uint64_t end =
        k + 1 < segments ? little32(fragment.data() + 8 + 4 * k) : fragment.size();
    if (start < 64 || start > end || end > fragment.size() ||
        !unpack(fragment.data() + start, end - start, plane))
      throw ImageFileError(path, "DICOM RLE segment " + std::to_string(k + 1) +
                                     " is malformed or decodes to fewer than " +
                                     std::to_string(layout.pixels) + " bytes");
    const std::uint32_t sample = k / layout.sampleBytes;
    const std::uint32_t byte = layout.sampleBytes - 1 - k % layout.sampleBytes;
    for (std::uint64_t p = 0; p < layout.pixels; ++p)
      out[(p * layout.samples + sample) * layout.sampleBytes + byte] = plane[p];
  }
}

}  // namespace detail
}  // namespace vorn

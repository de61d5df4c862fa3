// A walk over the elements of a DICOM file, keeping the few top-level values the reader uses
// and where the pixel data lies; everything else is skipped unread. vorn parses the file itself
// rather than through GDCM's parser, which allocates each value at the length its header
// claims and, as Debian builds it, aborts on malformed input through assertions; GDCM is
// given only compressed pixel fragments to decode. Every length, nested ones included, must
// fit in the bytes the file has.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "ImageFileCodecs.hpp"

namespace vorn {
namespace detail {
namespace {

constexpr std::uint32_t undefinedLength = 0xffffffff;
constexpr int maximumDepth = 32;  // sequences within sequences; real files nest a few

struct Header {
  std::uint16_t group = 0, element = 0;
  char vr[2] = {0, 0};
  std::uint32_t length = 0;
  std::uint64_t at = 0;  // where the element starts
};

class ElementWalker {
 public:
  ElementWalker(const std::string& path, std::uint64_t size)
      : m_path(path), m_size(size), m_file(path, std::ios::binary) {}

  DicomElements walk() {
    m_offset = 132;
    std::string syntax;
    while (m_offset + 8 <= m_size && peekGroup() == 0x0002) {
      const Header h = next(true);
      if (h.element == 0x0010) syntax = textAt(h);
      skipValue(h, true, 1);
    }
    syntax = syntax.substr(0, syntax.find_last_not_of(std::string(" \0", 2)) + 1);
    if (syntax == "1.2.840.10008.1.2.1.99")
      throw ImageFileError(m_path, "DICOM's deflated transfer syntax is not supported");
    if (syntax == "1.2.840.10008.1.2.2")
      throw ImageFileError(m_path, "DICOM's retired big-endian transfer syntax is not supported");
    m_result.syntax = syntax;
    walkDataSet(m_size, syntax != "1.2.840.10008.1.2", 1);
    return m_result;
  }

 private:
  const std::string& m_path;
  std::uint64_t m_size;
  std::ifstream m_file;
  std::uint64_t m_offset = 0;
  DicomElements m_result;

  void readAt(std::uint64_t offset, unsigned char* out, std::size_t count) {
    if (offset + count > m_size ||
        !m_file.seekg(static_cast<std::streamoff>(offset))
             .read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(count)))
      throw ImageFileError(
          m_path, "DICOM file truncated in an element header at byte " + std::to_string(offset));
  }

  static std::uint32_t little(const unsigned char* b, int count) {
    std::uint32_t value = 0;
    for (int k = count - 1; k >= 0; --k) value = value << 8 | b[k];
    return value;
  }

  std::uint16_t peekGroup() {
    unsigned char b[2];
    readAt(m_offset, b, 2);
    return static_cast<std::uint16_t>(little(b, 2));
  }

  static bool longVr(const char* vr) {
    static const char* const longs[] = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ",
                                        "SV", "UC", "UN", "UR", "UT", "UV"};
    for (const char* name : longs) {
      if (std::memcmp(vr, name, 2) == 0) return true;
    }
    return false;
  }

  Header next(bool explicitVr) {
    Header h;
    h.at = m_offset;
    unsigned char b[12];
    readAt(m_offset, b, 8);
    h.group = static_cast<std::uint16_t>(little(b, 2));
    h.element = static_cast<std::uint16_t>(little(b + 2, 2));
    m_offset += 8;
    if (h.group == 0xfffe || !explicitVr) {
      h.length = little(b + 4, 4);
      return h;
    }
    std::memcpy(h.vr, b + 4, 2);
    if (!std::isupper(b[4]) || !std::isupper(b[5]))
      throw ImageFileError(m_path, "DICOM element " + name(h) + " has no value representation, " +
                                       "though its transfer syntax says it has");
    if (!longVr(h.vr)) {
      h.length = little(b + 6, 2);
      return h;
    }
    readAt(m_offset, b + 8, 4);
    m_offset += 4;
    h.length = little(b + 8, 4);
    return h;
  }

  static std::string name(const Header& h) {
    char text[48];
    std::snprintf(text, sizeof text, "(%04x,%04x) at byte %llu", h.group, h.element,
                  static_cast<unsigned long long>(h.at));
    return text;
  }

  std::string textAt(const Header& h) {
    requireWithin(m_path, "DICOM element " + name(h), h.length, m_size - m_offset,
                  "left in the file");
    std::string text(std::min<std::uint32_t>(h.length, 64), '\0');
    readAt(m_offset, reinterpret_cast<unsigned char*>(text.data()), text.size());
    return text;
  }

  // Keeps the short values of the groups the reader uses, and where the pixel data starts.
  void keep(const Header& h) {
    const std::uint32_t tag = std::uint32_t{h.group} << 16 | h.element;
    if (tag == 0x7fe00010) {
      m_result.hasPixels = true;
      m_result.encapsulated = h.length == undefinedLength;
      if (!m_result.encapsulated) m_result.pixels = {m_offset, h.length};
      return;
    }
    const bool used = h.group == 0x0018 || h.group == 0x0020 || h.group == 0x0028;
    if (!used || h.length > 1024) return;
    requireWithin(m_path, "DICOM element " + name(h), h.length, m_size - m_offset,
                  "left in the file");
    std::string value(h.length, '\0');
    readAt(m_offset, reinterpret_cast<unsigned char*>(value.data()), value.size());
    m_result.values[tag] = value;
  }

  // Whether a value of defined length is a sequence whose items GDCM parses.
  bool isSequence(const Header& h, bool explicitVr) {
    if (explicitVr) return std::memcmp(h.vr, "SQ", 2) == 0;
    if (h.length < 8 || (h.group == 0x7fe0 && h.element == 0x0010)) return false;
    unsigned char b[4];
    readAt(m_offset, b, 4);
    return little(b, 2) == 0xfffe && little(b + 2, 2) == 0xe000;
  }

  void skipValue(const Header& h, bool explicitVr, int depth) {
    if (depth > maximumDepth)
      throw ImageFileError(
          m_path, "DICOM sequences nested more than " + std::to_string(maximumDepth) + " deep");
    const bool unknown = std::memcmp(h.vr, "UN", 2) == 0;
    if (h.length == undefinedLength) {
      const bool pixels = h.group == 0x7fe0 && h.element == 0x0010;
      walkItems(m_size, explicitVr && !unknown, pixels, depth);
      return;
    }
    requireWithin(m_path, "DICOM element " + name(h), h.length, m_size - m_offset,
                  "left in the file");
    const std::uint64_t end = m_offset + h.length;
    if (isSequence(h, explicitVr)) walkItems(end, explicitVr, false, depth);
    m_offset = end;
  }

  // Items up to `end` or a sequence delimiter; fragments of pixel data are skipped unparsed.
  void walkItems(std::uint64_t end, bool explicitVr, bool fragments, int depth) {
    while (m_offset < end) {
      const Header item = next(false);
      if (item.group == 0xfffe && item.element == 0xe0dd) return;
      if (item.group != 0xfffe || item.element != 0xe000)
        throw ImageFileError(
            m_path, "DICOM sequence holds element " + name(item) + " where an item belongs");
      if (item.length == undefinedLength && !fragments) {
        walkDataSet(m_size, explicitVr, depth + 1);
        continue;
      }
      requireWithin(m_path, "DICOM item " + name(item), item.length, end - m_offset,
                    "left in its sequence");
      const std::uint64_t itemEnd = m_offset + item.length;
      if (!fragments) walkDataSet(itemEnd, explicitVr, depth + 1);
      if (fragments) m_result.fragments.push_back({m_offset, item.length});
      m_offset = itemEnd;
    }
  }

  // Elements up to `end`, or up to an item delimiter.
  void walkDataSet(std::uint64_t end, bool explicitVr, int depth) {
    while (m_offset + 8 <= end) {  // a few bytes of trailing padding are no element
      const Header h = next(explicitVr);
      if (depth == 1) keep(h);
      if (h.group == 0xfffe && h.element == 0xe00d) return;
      skipValue(h, explicitVr, depth);
    }
  }
};

}  // namespace

DicomElements readDicomElements(const std::string& path, std::uint64_t fileSize) {
  return ElementWalker(path, fileSize).walk();
}

}  // namespace detail
}  // namespace vorn

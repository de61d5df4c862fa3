// MetaImage (.mha with the pixels after its header, .mhd with a data file beside it): "Key =
// Value" lines ending with ElementDataFile, parsed here with every number bounded.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "ImageFileCodecs.hpp"
#include "RawSamples.hpp"

namespace vorn {
namespace detail {
namespace {

constexpr std::size_t maximumHeaderBytes = 1 << 16;

struct MetaHeader {
  std::map<std::string, std::string> fields;
  std::uint64_t headerBytes = 0;  // where attached pixels start
};

const std::map<std::string, SampleType>& metaTypes() {
  static const std::map<std::string, SampleType> types = {
      {"MET_UCHAR", SampleType::U8},       {"MET_CHAR", SampleType::I8},
      {"MET_USHORT", SampleType::U16},     {"MET_SHORT", SampleType::I16},
      {"MET_UINT", SampleType::U32},       {"MET_INT", SampleType::I32},
      {"MET_ULONG_LONG", SampleType::U64}, {"MET_LONG_LONG", SampleType::I64},
      {"MET_FLOAT", SampleType::F32},      {"MET_DOUBLE", SampleType::F64}};
  return types;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

MetaHeader readMetaHeader(const std::string& path, std::uint64_t fileSize) {
  std::ifstream in(path, std::ios::binary);
  std::string text(static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, maximumHeaderBytes)),
                   '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  MetaHeader header;
  std::size_t at = 0;
  while (at < text.size() && header.fields.count("ElementDataFile") == 0) {
    const std::size_t end = text.find('\n', at);
    if (end == std::string::npos && fileSize > text.size()) break;
    const std::string line =
        trimmed(text.substr(at, end == std::string::npos ? std::string::npos : end - at));
    at = end == std::string::npos ? text.size() : end + 1;
    if (line.empty()) continue;
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos)
      throw ImageFileError(path,
                           "MetaImage header line without 'Key = Value': " + line.substr(0, 80));
    header.fields[trimmed(line.substr(0, equals))] = trimmed(line.substr(equals + 1));
  }
  if (header.fields.count("ElementDataFile") == 0) {
    throw ImageFileError(path, "MetaImage header without ElementDataFile in its first " +
                                   std::to_string(maximumHeaderBytes) + " bytes");
  }
  header.headerBytes = at;
  return header;
}

std::string field(const MetaHeader& header, const std::string& name, const std::string& path) {
  const auto found = header.fields.find(name);
  if (found == header.fields.end()) throw ImageFileError(path, "MetaImage header without " + name);
  return found->second;
}

std::string optional(const MetaHeader& header, const std::string& name) {
  const auto found = header.fields.find(name);
  return found == header.fields.end() ? "" : found->second;
}

bool isTrue(const std::string& value) { return value == "True" || value == "true" || value == "1"; }

void checkKind(const MetaHeader& header, const std::string& path) {
  const std::string object = optional(header, "ObjectType");
  if (!object.empty() && object != "Image")
    throw ImageFileError(path, "MetaImage ObjectType " + object + " is not an image");
  const std::string channels = optional(header, "ElementNumberOfChannels");
  if (!channels.empty() && channels != "1")
    throw ImageFileError(
        path, "MetaImage ElementNumberOfChannels " + channels + ": only one channel is read");
  const std::string binary = optional(header, "BinaryData");
  if (!binary.empty() && !isTrue(binary))
    throw ImageFileError(path, "MetaImage text data (BinaryData = False) is not supported");
}

std::vector<std::uint64_t> metaSizes(const MetaHeader& header, const std::string& path) {
  std::uint64_t axes = 0;
  const std::string text = field(header, "NDims", path);
  if (!parseCount(text, 1, 16, axes))
    throw ImageFileError(path, "MetaImage NDims '" + text + "': expected 1 to 16");
  std::vector<std::uint64_t> sizes;
  for (const std::string& word : words(field(header, "DimSize", path))) {
    std::uint64_t size = 0;
    if (!parseCount(word, 1, std::uint64_t{1} << 62, size))
      throw ImageFileError(path, "MetaImage DimSize: '" + word + "' is not a positive size");
    sizes.push_back(size);
  }
  if (sizes.size() != axes)
    throw ImageFileError(path, "MetaImage DimSize gives " + std::to_string(sizes.size()) +
                                   " sizes for NDims " + text);
  return sizes;
}

SampleType metaType(const MetaHeader& header, const std::string& path) {
  const std::string name = field(header, "ElementType", path);
  const auto found = metaTypes().find(name);
  if (found == metaTypes().end())
    throw ImageFileError(path, "MetaImage ElementType " + name + " is not supported");
  return found->second;
}

std::string metaDataPath(const MetaHeader& header, const std::string& path) {
  const std::string name = field(header, "ElementDataFile", path);
  if (name == "LOCAL") return path;
  if (name.rfind("LIST", 0) == 0 || name.find('%') != std::string::npos ||
      !isSafeDataFileName(name)) {
    throw ImageFileError(
        path, "MetaImage ElementDataFile '" + name +
                  "': only one file, named relative to the header's folder without '..', is read");
  }
  return siblingPath(path, name);
}

std::vector<double> numbers(const std::string& text) {
  std::vector<double> values;
  std::istringstream stream(text);
  double value = 0.0;
  while (stream >> value) values.push_back(value);
  return values;
}

void setMetaGeometry(const MetaHeader& header, ImageObject& image) {
  std::vector<double> spacing = numbers(optional(header, "ElementSpacing"));
  if (spacing.empty()) spacing = numbers(optional(header, "ElementSize"));
  std::vector<double> origin = numbers(optional(header, "Offset"));
  if (origin.empty()) origin = numbers(optional(header, "Origin"));
  if (origin.empty()) origin = numbers(optional(header, "Position"));
  for (unsigned int axis = 0; axis < image.getDimension(); ++axis) {
    if (axis < spacing.size() && std::isfinite(spacing[axis]) && spacing[axis] > 0.0) {
      image.setSpacing(axis, spacing[axis]);
    }
    if (axis < origin.size() && std::isfinite(origin[axis])) image.setOrigin(axis, origin[axis]);
  }
}

// Where the pixels start: after an attached header; HeaderSize bytes into a data file (-1: the
// pixels end the file).
std::uint64_t metaOffset(const MetaHeader& header, bool attached, std::uint64_t dataSize,
                         std::uint64_t rawBytes, const std::string& path) {
  if (attached) return header.headerBytes;
  const std::string text = optional(header, "HeaderSize");
  std::uint64_t skip = 0;
  if (text == "-1" && rawBytes <= dataSize) return dataSize - rawBytes;
  if (text.empty() || parseCount(text, 0, dataSize, skip)) return skip;
  throw ImageFileError(path, "MetaImage HeaderSize '" + text + "' lies outside the data file of " +
                                 std::to_string(dataSize) + " bytes");
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

}  // namespace

bool isMetaImageSignature(const unsigned char* head, std::size_t count) {
  std::size_t at = 0;
  while (at < count &&
         (head[at] == ' ' || head[at] == '\n' || head[at] == '\r' || head[at] == '\t'))
    ++at;
  for (const char* key : {"ObjectType", "NDims"}) {
    const std::size_t length = std::strlen(key);
    if (count - at > length && std::memcmp(head + at, key, length) == 0) {
      const unsigned char next = head[at + length];
      if (next == ' ' || next == '=') return true;
    }
  }
  return false;
}

void readMetaImageFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions&,
                       ImageObject& image) {
  const MetaHeader header = readMetaHeader(path, fileSize);
  checkKind(header, path);
  const std::vector<std::uint64_t> sizes = metaSizes(header, path);
  const SampleType type = metaType(header, path);
  const bool compressed = isTrue(optional(header, "CompressedData"));
  const std::string dataPath = metaDataPath(header, path);
  const bool attached = dataPath == path;
  const std::uint64_t dataSize = attached ? fileSize : dataFileSize(dataPath, path);
  std::uint64_t rawBytes = sampleBytes(type);
  for (const std::uint64_t size : sizes) {
    if (!multiplyChecked(rawBytes, size, rawBytes)) rawBytes = dataSize + 1;
  }
  const std::uint64_t offset =
      metaOffset(header, attached, dataSize, compressed ? 0 : rawBytes, path);
  const std::uint64_t present = offset <= dataSize ? dataSize - offset : 0;
  RawBlock block = checkedBlock(sizes, type, compressed ? inflateBound(present) : present, dataSize,
                                "MetaImage DimSize", path);
  block.bigEndian = isTrue(optional(header, "BinaryDataByteOrderMSB")) ||
                    isTrue(optional(header, "ElementByteOrderMSB"));
  readBlock(dataPath, offset, compressed, block, path, image);
  setMetaGeometry(header, image);
}

void writeMetaImageFile(const ImageObject& image, const std::string& temporary,
                        const std::string& target) {
  static const char* const typeNames[] = {"MET_UCHAR", "", "", "MET_SHORT", "",
                                          "",          "", "", "MET_FLOAT"};
  const SampleType type = sampleTypeOf(image.getPointType(), target);
  const unsigned int axes = image.getDimension();
  std::string sizes, spacing, origin;
  for (unsigned int axis = 0; axis < axes; ++axis) {
    sizes += (axis ? " " : "") + std::to_string(image.getBufferedRegion().m_size[axis]);
    spacing += (axis ? " " : "") + number(image.getSpacing(axis));
    origin += (axis ? " " : "") + number(image.getOrigin(axis));
  }
  const std::vector<unsigned char> data = encodedPixels(image, true, false, target);
  std::string header = "ObjectType = Image\nNDims = " + std::to_string(axes) +
                       "\nBinaryData = True\nBinaryDataByteOrderMSB = False\nCompressedData = "
                       "True\nCompressedDataSize = " +
                       std::to_string(data.size()) + "\nOffset = " + origin +
                       "\nElementSpacing = " + spacing + "\nDimSize = " + sizes +
                       "\nElementType = " + typeNames[static_cast<int>(type)] + "\n";
  if (endsWithLowercase(target, ".mhd")) {
    header += "ElementDataFile = " + writeDataFile(data, target, ".zraw") + "\n";
    writeHeaderAndData(header, {}, temporary, target);
  } else {
    writeHeaderAndData(header + "ElementDataFile = LOCAL\n", data, temporary, target);
  }
}

}  // namespace detail
}  // namespace vorn

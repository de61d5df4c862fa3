// NRRD (.nrrd with the pixels after its header, .nhdr with a data file beside it): a small
// text header parsed here, every number bounded, then a raw or gzip pixel block.
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

struct NrrdHeader {
  std::map<std::string, std::string> fields;
  std::uint64_t headerBytes = 0;  // where attached pixels start
};

const std::map<std::string, SampleType>& nrrdTypes() {
  static const std::map<std::string, SampleType> types = {
      {"uchar", SampleType::U8},
      {"unsigned char", SampleType::U8},
      {"uint8", SampleType::U8},
      {"uint8_t", SampleType::U8},
      {"signed char", SampleType::I8},
      {"int8", SampleType::I8},
      {"int8_t", SampleType::I8},
      {"short", SampleType::I16},
      {"short int", SampleType::I16},
      {"signed short", SampleType::I16},
      {"signed short int", SampleType::I16},
      {"int16", SampleType::I16},
      {"int16_t", SampleType::I16},
      {"ushort", SampleType::U16},
      {"unsigned short", SampleType::U16},
      {"unsigned short int", SampleType::U16},
      {"uint16", SampleType::U16},
      {"uint16_t", SampleType::U16},
      {"int", SampleType::I32},
      {"signed int", SampleType::I32},
      {"int32", SampleType::I32},
      {"int32_t", SampleType::I32},
      {"uint", SampleType::U32},
      {"unsigned int", SampleType::U32},
      {"uint32", SampleType::U32},
      {"uint32_t", SampleType::U32},
      {"longlong", SampleType::I64},
      {"long long", SampleType::I64},
      {"long long int", SampleType::I64},
      {"signed long long", SampleType::I64},
      {"signed long long int", SampleType::I64},
      {"int64", SampleType::I64},
      {"int64_t", SampleType::I64},
      {"ulonglong", SampleType::U64},
      {"unsigned long long", SampleType::U64},
      {"unsigned long long int", SampleType::U64},
      {"uint64", SampleType::U64},
      {"uint64_t", SampleType::U64},
      {"float", SampleType::F32},
      {"double", SampleType::F64}};
  return types;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Reads lines up to the blank line that ends an attached header, or the end of a detached one.
NrrdHeader readNrrdHeader(const std::string& path, std::uint64_t fileSize) {
  std::ifstream in(path, std::ios::binary);
  std::string text(static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, maximumHeaderBytes)),
                   '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  NrrdHeader header;
  std::size_t at = text.find('\n') + 1;  // the magic line, checked by the signature
  bool ended = false;
  while (at < text.size() && !ended) {
    const std::size_t end = text.find('\n', at);
    if (end == std::string::npos && fileSize > text.size()) break;
    const std::string line =
        trimmed(text.substr(at, end == std::string::npos ? std::string::npos : end - at));
    at = end == std::string::npos ? text.size() : end + 1;
    if (line.empty()) ended = true;
    if (line.empty() || line[0] == '#' || line.find(":=") != std::string::npos) continue;
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos)
      throw ImageFileError(path, "NRRD header line without 'field: value': " + line.substr(0, 80));
    header.fields[line.substr(0, colon)] = trimmed(line.substr(colon + 2));
  }
  if (!ended && fileSize > text.size()) {
    throw ImageFileError(path, "NRRD header longer than " + std::to_string(maximumHeaderBytes) +
                                   " bytes (or no blank line ending it)");
  }
  header.headerBytes = at;
  return header;
}

std::string field(const NrrdHeader& header, const std::string& name, const std::string& path) {
  const auto found = header.fields.find(name);
  if (found == header.fields.end())
    throw ImageFileError(path, "NRRD header without its '" + name + "' field");
  return found->second;
}

std::string optional(const NrrdHeader& header, const std::string& name,
                     const std::string& other = "") {
  auto found = header.fields.find(name);
  if (found == header.fields.end() && !other.empty()) found = header.fields.find(other);
  return found == header.fields.end() ? "" : found->second;
}

std::vector<std::uint64_t> nrrdSizes(const NrrdHeader& header, const std::string& path) {
  std::uint64_t dimension = 0;
  const std::string text = field(header, "dimension", path);
  if (!parseCount(text, 1, 16, dimension))
    throw ImageFileError(path, "NRRD dimension '" + text + "': expected 1 to 16");
  std::vector<std::uint64_t> sizes;
  for (const std::string& word : words(field(header, "sizes", path))) {
    std::uint64_t size = 0;
    if (!parseCount(word, 1, std::uint64_t{1} << 62, size))
      throw ImageFileError(path, "NRRD sizes: '" + word + "' is not a positive size");
    sizes.push_back(size);
  }
  if (sizes.size() != dimension)
    throw ImageFileError(
        path, "NRRD sizes gives " + std::to_string(sizes.size()) + " sizes for dimension " + text);
  return sizes;
}

SampleType nrrdType(const NrrdHeader& header, const std::string& path) {
  const std::string name = field(header, "type", path);
  const auto found = nrrdTypes().find(name);
  if (found == nrrdTypes().end())
    throw ImageFileError(path, "NRRD type '" + name + "' is not supported");
  return found->second;
}

bool nrrdGzip(const NrrdHeader& header, const std::string& path) {
  const std::string encoding = field(header, "encoding", path);
  if (encoding == "raw") return false;
  if (encoding == "gzip" || encoding == "gz") return true;
  throw ImageFileError(path, "NRRD encoding '" + encoding + "' is not supported (raw or gzip)");
}

// Numbers of a "(x,y,z)" vector; empty for "none".
std::vector<double> vectorOf(const std::string& text) {
  std::vector<double> values;
  std::string inner = text;
  for (char& c : inner) {
    if (c == '(' || c == ')' || c == ',') c = ' ';
  }
  std::istringstream stream(inner);
  double value = 0.0;
  while (stream >> value) values.push_back(value);
  return values;
}

// Spacing per axis: "spacings", else the length of each "space directions" vector, else 1.
void setNrrdGeometry(const NrrdHeader& header, ImageObject& image) {
  const unsigned int axes = image.getDimension();
  const std::vector<std::string> spacings = words(optional(header, "spacings"));
  std::vector<std::string> directions;
  std::istringstream stream(optional(header, "space directions"));
  for (std::string word; stream >> word;) directions.push_back(word);
  for (unsigned int axis = 0; axis < axes; ++axis) {
    double spacing = 1.0;
    if (axis < spacings.size()) {
      spacing = std::strtod(spacings[axis].c_str(), nullptr);
    } else if (axis < directions.size()) {
      double sum = 0.0;
      for (const double component : vectorOf(directions[axis])) sum += component * component;
      spacing = std::sqrt(sum);
    }
    image.setSpacing(axis, std::isfinite(spacing) && spacing > 0.0 ? spacing : 1.0);
  }
  const std::vector<double> origin = vectorOf(optional(header, "space origin"));
  for (unsigned int axis = 0; axis < axes && axis < origin.size(); ++axis) {
    if (std::isfinite(origin[axis])) image.setOrigin(axis, origin[axis]);
  }
}

std::string nrrdDataPath(const NrrdHeader& header, const std::string& path) {
  const std::string name = optional(header, "data file", "datafile");
  if (name.empty()) return path;
  if (name.rfind("LIST", 0) == 0 || words(name).size() != 1 || !isSafeDataFileName(name)) {
    throw ImageFileError(
        path, "NRRD data file '" + name +
                  "': only one file, named relative to the header's folder without '..', is read");
  }
  return siblingPath(path, name);
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

}  // namespace

bool isNrrdSignature(const unsigned char* head, std::size_t count) {
  return count >= 8 && std::memcmp(head, "NRRD000", 7) == 0 && head[7] >= '1' && head[7] <= '5';
}

void readNrrdFile(const std::string& path, std::uint64_t fileSize, const ImageReadOptions&,
                  ImageObject& image) {
  const NrrdHeader header = readNrrdHeader(path, fileSize);
  const std::vector<std::uint64_t> sizes = nrrdSizes(header, path);
  const SampleType type = nrrdType(header, path);
  const bool gzipped = nrrdGzip(header, path);
  const std::string dataPath = nrrdDataPath(header, path);
  const bool attached = dataPath == path;
  const std::uint64_t dataSize = attached ? fileSize : dataFileSize(dataPath, path);
  std::uint64_t skip = 0;
  const std::string skipText = optional(header, "byte skip", "byteskip");
  if (!skipText.empty() && (gzipped ? skipText != "0" : !parseCount(skipText, 0, dataSize, skip))) {
    throw ImageFileError(path, "NRRD byte skip '" + skipText + "' lies outside the data file of " +
                                   std::to_string(dataSize) + " bytes");
  }
  const std::string lineSkip = optional(header, "line skip", "lineskip");
  if (!lineSkip.empty() && lineSkip != "0")
    throw ImageFileError(path, "NRRD line skip is not supported");
  const std::uint64_t offset = (attached ? header.headerBytes : 0) + skip;
  if (offset > dataSize)
    throw ImageFileError(path, "NRRD pixels start after the end of the file of " +
                                   std::to_string(dataSize) + " bytes");
  const std::uint64_t present = dataSize - offset;
  RawBlock block = checkedBlock(sizes, type, gzipped ? inflateBound(present) : present, dataSize,
                                "NRRD sizes", path);
  block.bigEndian = optional(header, "endian") == "big";
  readBlock(dataPath, offset, gzipped, block, path, image);
  setNrrdGeometry(header, image);
}

void writeNrrdFile(const ImageObject& image, const std::string& temporary,
                   const std::string& target) {
  static const char* const typeNames[] = {"uint8", "", "", "int16", "", "", "", "", "float"};
  const SampleType type = sampleTypeOf(image.getPointType(), target);
  const unsigned int axes = image.getDimension();
  std::string sizes, directions, origin;
  for (unsigned int axis = 0; axis < axes; ++axis) {
    sizes += (axis ? " " : "") + std::to_string(image.getBufferedRegion().m_size[axis]);
    directions += " (";
    for (unsigned int k = 0; k < axes; ++k)
      directions += (k ? "," : "") + number(k == axis ? image.getSpacing(axis) : 0.0);
    directions += ")";
    origin += (axis ? "," : "") + number(image.getOrigin(axis));
  }
  const std::vector<unsigned char> data = encodedPixels(image, true, true, target);
  std::string header =
      "NRRD0004\n# written by vorn\ntype: " + std::string(typeNames[static_cast<int>(type)]) +
      "\ndimension: " + std::to_string(axes) + "\nspace dimension: " + std::to_string(axes) +
      "\nsizes: " + sizes + "\nspace directions:" + directions + "\nspace origin: (" + origin +
      ")\nendian: little\nencoding: gzip\n";
  if (endsWithLowercase(target, ".nhdr")) {
    header += "data file: " + writeDataFile(data, target, ".raw.gz") + "\n";
    writeHeaderAndData(header, {}, temporary, target);
  } else {
    writeHeaderAndData(header + "\n", data, temporary, target);
  }
}

}  // namespace detail
}  // namespace vorn

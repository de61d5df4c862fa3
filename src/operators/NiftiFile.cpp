// NIfTI-1 and NIfTI-2 single files (.nii, .nii.gz) through the NIfTI C library: its header
// structure, byte swapping and type tables, and its znz streams, which read plain and gzip files
// alike. The header is read and validated here rather than by nifti_image_read: that function picks
// the compression from the file name, and it repairs bad axis sizes instead of refusing them.
#include <nifti2_io.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "ImageFileCodecs.hpp"
#include "Parallel.hpp"
#include "vorn/operators/ImageFile.hpp"
#include "vorn/operators/Threads.hpp"

namespace vorn {
namespace detail {
namespace {

constexpr int headerSize = 348;
constexpr std::uint64_t dataOffset = 352;  // header plus the 4-byte extension flag
constexpr int maximumAxisSize = std::numeric_limits<short>::max();
constexpr int header2Size = 540;
constexpr std::int64_t data2Offset = 544;

// NIfTI-2 is the same layout with 64-bit sizes and double geometry in a 540-byte header; the
// code shared by both versions takes the header type and reads its version and size from here.
template <class Header>
struct Version;
template <>
struct Version<nifti_1_header> {
  static constexpr int number = 1;
  static constexpr int size = headerSize;
};
template <>
struct Version<nifti_2_header> {
  static constexpr int number = 2;
  static constexpr int size = header2Size;
};

struct ZnzCloser {
  void operator()(znzptr* file) const { Xznzclose(&file); }
};
using ZnzPtr = std::unique_ptr<znzptr, ZnzCloser>;

// Where the voxels are and what the image will be, from a validated header.
struct Layout {
  Box box;
  int datatype = 0;
  int bytesPerVoxel = 0;
  int swapSize = 0;
  std::uint64_t voxels = 0;
  std::uint64_t bytes = 0;
  std::uint64_t offset = 0;
  bool swapped = false;
  double slope = 1.0;
  double intercept = 0.0;
  PixelType::Type type = PixelType::FLOAT;
};

// Calls f(tag) with a value of the C++ type of a real NIfTI data type; false for other types.
template <class F>
bool withNiftiType(int datatype, F&& f) {
  switch (datatype) {
    case DT_UINT8:
      f(std::uint8_t{});
      return true;
    case DT_INT8:
      f(std::int8_t{});
      return true;
    case DT_INT16:
      f(std::int16_t{});
      return true;
    case DT_UINT16:
      f(std::uint16_t{});
      return true;
    case DT_INT32:
      f(std::int32_t{});
      return true;
    case DT_UINT32:
      f(std::uint32_t{});
      return true;
    case DT_INT64:
      f(std::int64_t{});
      return true;
    case DT_UINT64:
      f(std::uint64_t{});
      return true;
    case DT_FLOAT32:
      f(float{});
      return true;
    case DT_FLOAT64:
      f(double{});
      return true;
    default:
      return false;
  }
}

// The header's own size field tells the byte order: 348 (540) either way round.
template <class Header>
bool needsSwap(const Header& header, const std::string& path) {
  constexpr int size = Version<Header>::size;
  if (header.sizeof_hdr == size) return false;
  int swapped = header.sizeof_hdr;
  nifti_swap_4bytes(1, &swapped);
  if (swapped == size) return true;
  throw ImageFileError(path, "bad NIfTI-" + std::to_string(Version<Header>::number) +
                                 " header size " + std::to_string(header.sizeof_hdr));
}

template <class Header>
Box boxOf(const Header& header, const std::string& path, std::uint64_t& voxels) {
  const auto axes = header.dim[0];
  if (axes < 1 || axes > 7) {
    throw ImageFileError(path, "dim[0] = " + std::to_string(axes) + ": expected 1 to 7 axes");
  }
  Box box(static_cast<unsigned int>(axes));
  voxels = 1;
  for (int axis = 1; axis <= axes; ++axis) {
    const auto size = header.dim[axis];
    if (size < 1) {
      throw ImageFileError(path, "dim[" + std::to_string(axis) + "] = " + std::to_string(size) +
                                     ": axis sizes must be positive");
    }
    if (!multiplyChecked(voxels, static_cast<std::uint64_t>(size), voxels)) {
      throw ImageFileError(path, "the axis sizes multiply to more voxels than can be counted");
    }
    box.m_size[axis - 1] = static_cast<unsigned long>(size);
  }
  return box;
}

void checkDatatype(int datatype, const std::string& path) {
  if (withNiftiType(datatype, [](auto) {})) return;
  if (nifti_is_valid_datatype(datatype)) {
    throw ImageFileError(
        path, std::string("unsupported NIfTI data type ") + nifti_datatype_string(datatype));
  }
  throw ImageFileError(path, "unknown NIfTI data type " + std::to_string(datatype));
}

// The voxels must fit in the file after the offset; for gzip, in what its size can expand to.
void checkClaim(Layout& layout, const nifti_1_header& header, bool gzipped, std::uint64_t fileSize,
                const std::string& path) {
  const double offset = header.vox_offset;
  if (!(offset >= headerSize && offset < 1e18)) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", offset);
    throw ImageFileError(path, std::string("vox_offset ") + text + " lies outside the file");
  }
  layout.offset = static_cast<std::uint64_t>(offset);
  std::uint64_t end = std::numeric_limits<std::uint64_t>::max();
  if (multiplyChecked(layout.voxels, static_cast<std::uint64_t>(layout.bytesPerVoxel),
                      layout.bytes) &&
      layout.bytes <= end - layout.offset) {
    end = layout.offset + layout.bytes;
  }
  const std::string claim = "NIfTI-1 header (" + std::to_string(layout.voxels) + " voxels of " +
                            std::to_string(layout.bytesPerVoxel) +
                            (layout.bytesPerVoxel == 1 ? " byte" : " bytes") + " from byte " +
                            std::to_string(layout.offset) + ")";
  if (gzipped) {
    requireInflatable(path, claim, end, fileSize, "of the gzip file");
  } else {
    requireWithin(path, claim, end, fileSize, "of the file");
  }
}

// A scaling counts when its slope is finite, not 0, and the pair is not the identity.
template <class Header>
void chooseType(Layout& layout, const Header& header) {
  const double slope = header.scl_slope;
  const double intercept = std::isfinite(header.scl_inter) ? header.scl_inter : 0.0;
  const bool scaled = std::isfinite(slope) && slope != 0.0 && !(slope == 1.0 && intercept == 0.0);
  if (scaled) {
    layout.slope = slope;
    layout.intercept = intercept;
  }
  layout.type = PixelType::FLOAT;
  if (!scaled && layout.datatype == DT_UINT8) layout.type = PixelType::UCHAR;
  if (!scaled && layout.datatype == DT_INT16) layout.type = PixelType::SHORT;
}

void checkClaim(Layout& layout, const nifti_2_header& header, bool gzipped, std::uint64_t fileSize,
                const std::string& path) {
  const std::int64_t offset = header.vox_offset;
  const std::uint64_t available = gzipped ? inflateBound(fileSize) : fileSize;
  if (offset < header2Size || static_cast<std::uint64_t>(offset) > available) {
    throw ImageFileError(path, "vox_offset " + std::to_string(offset) + " lies outside the file");
  }
  layout.offset = static_cast<std::uint64_t>(offset);
  if (!multiplyChecked(layout.voxels, static_cast<std::uint64_t>(layout.bytesPerVoxel),
                       layout.bytes) ||
      layout.bytes > available - layout.offset) {
    throw ImageFileError(path, "header claims " + std::to_string(layout.voxels) +
                                   " voxels, more than the file of " + std::to_string(fileSize) +
                                   " bytes holds");
  }
}

template <class Header>
Layout validate(Header& header, bool gzipped, std::uint64_t fileSize, const std::string& path) {
  Layout layout;
  layout.swapped = needsSwap(header, path);
  if (layout.swapped) swap_nifti_header(&header, Version<Header>::number);
  layout.box = boxOf(header, path, layout.voxels);
  layout.datatype = header.datatype;
  checkDatatype(layout.datatype, path);
  nifti_datatype_sizes(layout.datatype, &layout.bytesPerVoxel, &layout.swapSize);
  checkClaim(layout, header, gzipped, fileSize, path);
  chooseType(layout, header);
  return layout;
}

// A plain file was recognised by its magic already, so only gzip content can fail here.
void readHeader(znzFile file, const std::string& path, nifti_1_header& header) {
  const std::size_t got = znzread(&header, 1, sizeof header, file);
  if (got == sizeof header && std::memcmp(header.magic, "n+1", 4) == 0) return;
  throw ImageFileError(path, got == sizeof header
                                 ? "not a PNG or NIfTI-1 file (gzip data without a NIfTI-1 "
                                   "header)"
                                 : "not a PNG or NIfTI-1 file (no whole NIfTI-1 header in the "
                                   "gzip data, which may also be cut short or corrupt)");
}

void readHeader(znzFile file, const std::string& path, nifti_2_header& header) {
  if (znzread(&header, 1, sizeof header, file) != sizeof header ||
      std::memcmp(header.magic, "n+2", 4) != 0) {
    throw ImageFileError(path, "no whole NIfTI-2 header (cut short, corrupt or a .hdr/.img pair)");
  }
}

void readVoxels(znzFile file, const Layout& layout, void* destination, const std::string& path) {
  const znz_off_t offset = static_cast<znz_off_t>(layout.offset);
  // A gzip seek past the end only shows in the read that follows, checked below.
  const std::size_t got =
      znzseek(file, offset, SEEK_SET) < 0 ? 0 : znzread(destination, 1, layout.bytes, file);
  if (got == static_cast<std::size_t>(-1)) {
    throw ImageFileError(path, "corrupt compressed data in the voxels");
  }
  if (got != layout.bytes) {
    throw ImageFileError(path, "the file ends after " + std::to_string(got) + " of the " +
                                   std::to_string(layout.bytes) +
                                   " bytes of voxels its header claims");
  }
  if (layout.swapped && layout.swapSize > 1) {
    nifti_swap_Nbytes(static_cast<std::int64_t>(layout.voxels), layout.swapSize, destination);
  }
}

// Reading on past the voxels lets zlib reach the gzip trailer and check the CRC of what was
// read (data after the voxels, if any, is not read through).
void checkCompressedEnd(znzFile file, const std::string& path) {
  unsigned char rest[4096];
  if (znzread(rest, 1, sizeof rest, file) == static_cast<std::size_t>(-1)) {
    throw ImageFileError(path, "corrupt compressed data (the gzip check fails)");
  }
}

float toFloat(double value) {
  constexpr double largest = std::numeric_limits<float>::max();
  if (value > largest) return std::numeric_limits<float>::infinity();
  if (value < -largest) return -std::numeric_limits<float>::infinity();
  return static_cast<float>(value);
}

// On the library's thread count: a reader has no parameter of its own for it.
template <class T>
void convertVoxels(const unsigned char* raw, const Layout& layout, float* out) {
  detail::parallelFor(
      threadCount(), layout.voxels, detail::kGrainPixels, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
          T value;
          std::memcpy(&value, raw + k * sizeof(T), sizeof(T));
          out[k] = toFloat(static_cast<double>(value) * layout.slope + layout.intercept);
        }
      });
}

void loadVoxels(znzFile file, const Layout& layout, const std::string& path, ImageObject& image) {
  image.Allocate(layout.type, layout.box);
  const bool unscaled = layout.slope == 1.0 && layout.intercept == 0.0;
  const bool direct = unscaled && (layout.datatype == DT_UINT8 || layout.datatype == DT_INT16 ||
                                   layout.datatype == DT_FLOAT32);
  if (direct) {  // the stored bytes are the pixels
    readVoxels(file, layout, image.getBuffer(), path);
    return;
  }
  std::vector<unsigned char> raw(layout.bytes);
  readVoxels(file, layout, raw.data(), path);
  float* out = static_cast<float*>(image.getBuffer());
  withNiftiType(layout.datatype,
                [&](auto tag) { convertVoxels<decltype(tag)>(raw.data(), layout, out); });
}

// Spacing from pixdim (its magnitude; 1 where unusable), origin from the q-form offset.
template <class Header>
void setGeometry(const Header& header, ImageObject& image) {
  const double offsets[3] = {header.qoffset_x, header.qoffset_y, header.qoffset_z};
  for (unsigned int axis = 0; axis < image.getDimension(); ++axis) {
    const double spacing = std::fabs(header.pixdim[axis + 1]);
    image.setSpacing(axis, std::isfinite(spacing) && spacing > 0.0 ? spacing : 1.0);
    if (axis < 3 && header.qform_code > 0 && std::isfinite(offsets[axis])) {
      image.setOrigin(axis, offsets[axis]);
    }
  }
}

int datatypeOf(PixelType::Type type, const std::string& target) {
  switch (type) {
    case PixelType::UCHAR:
      return DT_UINT8;
    case PixelType::SHORT:
      return DT_INT16;
    case PixelType::FLOAT:
      return DT_FLOAT32;
    default:
      throw ImageFileError(target, "the image holds no pixels of a known type");
  }
}

std::vector<int> dimsOf(const ImageObject& image, const std::string& target) {
  const unsigned int axes = image.getDimension();
  if (axes < 1 || axes > 7) {
    throw ImageFileError(target,
                         "NIfTI-1 holds 1 to 7 axes, this image has " + std::to_string(axes));
  }
  std::vector<int> dims(8, 1);
  dims[0] = static_cast<int>(axes);
  for (unsigned int axis = 0; axis < axes; ++axis) {
    const unsigned long size = image.getBufferedRegion().m_size[axis];
    if (size < 1 || size > static_cast<unsigned long>(maximumAxisSize)) {
      throw ImageFileError(
          target, "axis size " + std::to_string(size) + " does not fit in NIfTI-1 (1 to 32767)");
    }
    dims[axis + 1] = static_cast<int>(size);
  }
  return dims;
}

// A q-form with the identity rotation carries the origin; no scaling, no s-form.
template <class Header>
void placeAtOrigin(Header& header, const ImageObject& image) {
  using Real = std::decay_t<decltype(header.pixdim[0])>;
  header.scl_slope = 0;
  header.scl_inter = 0;
  header.qform_code = NIFTI_XFORM_SCANNER_ANAT;
  header.sform_code = NIFTI_XFORM_UNKNOWN;
  header.quatern_b = header.quatern_c = header.quatern_d = 0;
  header.pixdim[0] = 1;  // qfac
  Real* offsets[3] = {&header.qoffset_x, &header.qoffset_y, &header.qoffset_z};
  for (unsigned int axis = 0; axis < image.getDimension(); ++axis) {
    header.pixdim[axis + 1] = static_cast<Real>(image.getSpacing(axis));
    if (axis < 3) *offsets[axis] = static_cast<Real>(image.getOrigin(axis));
  }
}

nifti_1_header headerOf(const ImageObject& image, const std::string& target) {
  const int datatype = datatypeOf(image.getPointType(), target);
  const std::vector<int> dims = dimsOf(image, target);
  const std::vector<std::int64_t> wide(dims.begin(), dims.end());
  std::unique_ptr<nifti_1_header, decltype(&std::free)> made(
      nifti_make_new_n1_header(wide.data(), datatype), &std::free);
  if (!made) throw ImageFileError(target, "cannot build a NIfTI-1 header");
  nifti_1_header header = *made;
  header.vox_offset = static_cast<float>(dataOffset);
  placeAtOrigin(header, image);
  return header;
}

nifti_2_header header2Of(const ImageObject& image, const std::string& target) {
  const int datatype = datatypeOf(image.getPointType(), target);
  const unsigned int axes = image.getDimension();
  if (axes < 1 || axes > 7) {
    throw ImageFileError(target, "NIfTI holds 1 to 7 axes, this image has " + std::to_string(axes));
  }
  std::vector<std::int64_t> dims(8, 1);
  dims[0] = axes;
  for (unsigned int axis = 0; axis < axes; ++axis) {
    dims[axis + 1] = static_cast<std::int64_t>(image.getBufferedRegion().m_size[axis]);
  }
  std::unique_ptr<nifti_2_header, decltype(&std::free)> made(
      nifti_make_new_n2_header(dims.data(), datatype), &std::free);
  if (!made) throw ImageFileError(target, "cannot build a NIfTI-2 header");
  nifti_2_header header = *made;
  header.vox_offset = data2Offset;
  placeAtOrigin(header, image);
  return header;
}

template <class Header>
void readFile(const std::string& path, bool gzipped, std::uint64_t fileSize, ImageObject& image) {
  ZnzPtr file(znzopen(path.c_str(), "rb", gzipped ? 1 : 0));
  if (!file) throw ImageFileError(path, "cannot open");
  Header header;
  readHeader(file.get(), path, header);
  const Layout layout = validate(header, gzipped, fileSize, path);
  loadVoxels(file.get(), layout, path, image);
  if (gzipped) checkCompressedEnd(file.get(), path);
  setGeometry(header, image);
}

template <class Header>
void writeFile(const Header& header, const ImageObject& image, const std::string& temporary,
               bool gzipped, const std::string& target) {
  const std::size_t bytes = getSizeOf(image.getPointType()) * image.getPixelNumber();
  const char extension[4] = {0, 0, 0, 0};
  ZnzPtr file(znzopen(temporary.c_str(), "wb", gzipped ? 1 : 0));
  if (!file) throw ImageFileError(target, "cannot open for writing");
  const bool written = znzwrite(&header, 1, sizeof header, file.get()) == sizeof header &&
                       znzwrite(extension, 1, sizeof extension, file.get()) == sizeof extension &&
                       znzwrite(image.getBuffer(), 1, bytes, file.get()) == bytes;
  znzFile raw = file.release();
  const bool closed = Xznzclose(&raw) == 0;
  if (!written || !closed) {
    throw ImageFileError(
        target, "cannot write the NIfTI-" + std::to_string(Version<Header>::number) + " file");
  }
}

}  // namespace

void readNiftiFile(const std::string& path, bool gzipped, std::uint64_t fileSize,
                   ImageObject& image) {
  readFile<nifti_1_header>(path, gzipped, fileSize, image);
}

void writeNiftiFile(const ImageObject& image, const std::string& temporary, bool gzipped,
                    const std::string& target) {
  writeFile(headerOf(image, target), image, temporary, gzipped, target);
}

int niftiVersion(const std::string& path, bool gzipped) {
  ZnzPtr file(znzopen(path.c_str(), "rb", gzipped ? 1 : 0));
  int size = 0;
  if (!file || znzread(&size, 1, sizeof size, file.get()) != sizeof size) return 1;
  int swapped = size;
  nifti_swap_4bytes(1, &swapped);
  return size == header2Size || swapped == header2Size ? 2 : 1;
}

void readNifti2File(const std::string& path, bool gzipped, std::uint64_t fileSize,
                    ImageObject& image) {
  readFile<nifti_2_header>(path, gzipped, fileSize, image);
}

void writeNifti2File(const ImageObject& image, const std::string& temporary, bool gzipped,
                     const std::string& target) {
  writeFile(header2Of(image, target), image, temporary, gzipped, target);
}

}  // namespace detail
}  // namespace vorn

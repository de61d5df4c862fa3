// vorn/operators/ImageFile.hpp
//
// Image files: reading PNG, NIfTI-1/2, TIFF, NRRD, MetaImage and DICOM files into an
// ImageObject and writing all but DICOM back.
//
//   vorn::ImageObject image;
//   vorn::readImageFile("head.nii.gz", image);   // format taken from the bytes, not the name
//   vorn::writeImageFile(image, "head.png");     // format taken from the name
//
// What each format carries:
// - PNG: 2-D images only, spacing 1 and origin 0. Gray 8-bit reads as UCHAR, gray 16-bit as
//   FLOAT (0 to 65535). Colour and palette images read as their luma 0.299 R + 0.587 G +
//   0.114 B, rounded (FLOAT for 16-bit colour); alpha is dropped; 1-, 2- and 4-bit gray is
//   scaled to 8 bits (a 1-bit white reads 255). UCHAR writes 8-bit gray; SHORT and FLOAT
//   write 16-bit gray, rounded half away from zero and clamped to 0..65535 (NaN writes 0).
// - NIfTI-1 (.nii, and .nii.gz compressed): 1 to 7 axes, kept as the header gives them
//   (trailing axes of size 1 included). uint8, int16 and float32 read as UCHAR, SHORT and
//   FLOAT; every other real type, and any file with a scaling (scl_slope not 0 and not the
//   identity), reads as FLOAT. Spacing comes from pixdim, the origin of the first three axes
//   from the q-form offset (0 without a q-form, and always 0 beyond the third axis).
//   Spacing and origin are stored as 32-bit floats; axis sizes are limited to 32767.
// - NIfTI-2 (.nii, .nii.gz, 540-byte header): read as NIfTI-1, with double geometry and 64-bit
//   sizes; written instead of NIfTI-1 exactly when an axis exceeds 32767.
// - TIFF (.tif, .tiff; classic or BigTIFF, striped or tiled, any compression libtiff decodes):
//   gray pages of 8 to 64-bit integer or 32/64-bit float samples; RGB and palette as luma as
//   for PNG. Several pages of one size read as a 3-D stack (pages along axis 2). Spacing from
//   the resolution tags (1/resolution, in the file's unit). uint8, int16 and float32 keep
//   their type; every other sample type reads as FLOAT, as for NIfTI. Writes UCHAR, SHORT and
//   FLOAT deflated, 2-D as one page and 3-D as one page per slice.
// - NRRD (.nrrd, or .nhdr with a data file) and MetaImage (.mha, or .mhd with a data file):
//   up to 16 axes, any integer or float sample type (the same type rule), raw or gzip/zlib,
//   either byte order; spacing and origin kept. Written compressed and little-endian; a .nhdr
//   or .mhd gets its data file beside it. A detached data file must be named relative to the
//   header's folder, without "..".
// - DICOM (read only; recognised by "DICM" at byte 128): a file, or a folder holding one series
//   (files of other formats in it are ignored; ImageReadOptions::series picks one of several,
//   by Series Instance UID). Slices are sorted along the normal of Image Orientation (Patient)
//   by their Image Position (Patient) and must be evenly spaced (within 1% of the mean) and of
//   one size; axis 2's spacing is the measured distance, axes 0 and 1 take Pixel Spacing's
//   column and row spacing, the origin is the first slice's position (the orientation itself
//   is dropped). A multi-frame file reads as a 3-D volume, frames Spacing Between Slices apart
//   (1 without it). Rescale Slope/Intercept are applied: integral ones keep UCHAR (8-bit
//   samples) or SHORT while the stored bits' range fits after the rescale, anything else reads
//   as FLOAT. RGB reads as luma as for PNG, YBR_FULL as its Y. Any transfer syntax GDCM
//   decodes (uncompressed, RLE, JPEG, JPEG-LS, JPEG 2000); the retired big-endian and the
//   deflated syntaxes are refused. At most 20000 folder entries and 10000 slices or frames.
//
// Sharp edges: readImageFile replaces the image's contents through ImageObject::import, so an
// image that borrows its buffer (see ImageObject.hpp) follows import's rules.
#pragma once

#include <stdexcept>
#include <string>

#include "vorn/ImageObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// An image file that cannot be read or written: what() is "<path>: <what is wrong>".
class VORN_OPERATORS_API ImageFileError : public std::runtime_error {
 public:
  // What went wrong (`problem`) with the file at `path`.
  ImageFileError(const std::string& path, const std::string& problem);
  // The file at fault.
  const std::string& getPath() const;

 private:
  std::string m_path;
};

// What a read may be told besides the path; each format takes what concerns it.
struct ImageReadOptions {
  // DICOM folders: the Series Instance UID of the series to read; empty: the folder's only one.
  std::string series;
};

// Reads an image file, its format recognised by its content, into `image` (a folder is read as
// one DICOM series). On any failure throws ImageFileError and leaves `image` exactly as it was;
// on success the image keeps its generator. Files whose headers claim more pixels than the
// file can hold are refused before anything that large is allocated.
VORN_OPERATORS_API void readImageFile(const std::string& path, ImageObject& image);
// The same, with options.
VORN_OPERATORS_API void readImageFile(const std::string& path, ImageObject& image,
                                      const ImageReadOptions& options);

// Writes `image` in the format named by the extension of `path`: .png, .nii, .nii.gz, .tif,
// .tiff, .nrrd, .nhdr, .mha or .mhd (case does not matter); anything else throws ImageFileError.
// The file is written under a temporary name in the same folder and renamed over `path` at the end,
// so a failure leaves no partial file and an existing `path` untouched.
VORN_OPERATORS_API void writeImageFile(const ImageObject& image, const std::string& path);

}  // namespace vorn

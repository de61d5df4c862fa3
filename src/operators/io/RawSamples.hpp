// What the readers of raw-pixel formats (NRRD, MetaImage, TIFF) share: sample types, the
// mapping of each onto vorn's pixel types, the check that a header's claim fits the data the
// file holds, and plain or zlib-compressed pixel blocks read from and written to files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn/ImageObject.hpp"

namespace vorn {
namespace detail {

enum class SampleType { U8, I8, U16, I16, U32, I32, U64, I64, F32, F64 };

unsigned int sampleBytes(SampleType type);
// uint8, int16 and float32 keep their type (UCHAR, SHORT, FLOAT); every other type reads as
// FLOAT, as NIfTI's do: vorn has no wider integer type, and a FLOAT holds every uint16 and
// int8 exactly (32-bit and 64-bit integers to 24 bits of precision).
PixelType::Type pixelTypeOf(SampleType type);
// The sample type vorn writes for a pixel type (U8, I16 or F32); throws for UNKNOWN.
SampleType sampleTypeOf(PixelType::Type type, const std::string& target);

// The pixel block a header describes.
struct RawBlock {
  Box box;
  SampleType type = SampleType::U8;
  bool bigEndian = false;
  std::uint64_t bytes = 0;  // samples x sample size
};

// The box of `sizes`, and the bytes its samples take, checked: at most `maxAxes` axes, every
// size positive, and no more bytes than `available` (the data file's size, or what its
// compressed bytes can expand to). Messages name `field`, the claim and `fileSize`.
RawBlock checkedBlock(const std::vector<std::uint64_t>& sizes, SampleType type,
                      std::uint64_t available, std::uint64_t fileSize, const std::string& field,
                      const std::string& path);

// Stores the block's `raw` samples (in the host's byte order) as `pixelType` (pixelTypeOf).
void convertSamples(const unsigned char* raw, const RawBlock& block, PixelType::Type pixelType,
                    void* out);
// Reads the block from `dataPath` at `offset`: raw, or a zlib/gzip stream of `compressedBytes`
// (0: to the end of the file). Allocates `image` and converts to its pixel type.
void readBlock(const std::string& dataPath, std::uint64_t offset, bool compressed,
               const RawBlock& block, const std::string& path, ImageObject& image);

// The image's pixels as little-endian bytes, deflated (gzip wrapper or zlib) when asked.
std::vector<unsigned char> encodedPixels(const ImageObject& image, bool compress, bool gzip,
                                         const std::string& target);

// A plain file name, or a relative path that stays below the header's folder.
bool isSafeDataFileName(const std::string& name);
// The folder of `path` joined with `name`.
std::string siblingPath(const std::string& path, const std::string& name);
// Parses a whole decimal number in [minimum, maximum]; false on anything else.
bool parseCount(const std::string& text, std::uint64_t minimum, std::uint64_t maximum,
                std::uint64_t& value);
// Splits on spaces and tabs.
std::vector<std::string> words(const std::string& text);
// The file's size, or throws ImageFileError naming `path` (the header) and the data file.
std::uint64_t dataFileSize(const std::string& dataPath, const std::string& path);
// Whether `text` ends with `end` (lower case), ignoring the case of `text`.
bool endsWithLowercase(const std::string& text, const std::string& end);
// Writes `data` completely beside `target` as its name without extension plus `suffix`
// (through a temporary name, renamed at the end) and returns that file's plain name.
std::string writeDataFile(const std::vector<unsigned char>& data, const std::string& target,
                          const std::string& suffix);
// Writes header then data to `temporary`; errors name `target`.
void writeHeaderAndData(const std::string& header, const std::vector<unsigned char>& data,
                        const std::string& temporary, const std::string& target);

}  // namespace detail
}  // namespace vorn

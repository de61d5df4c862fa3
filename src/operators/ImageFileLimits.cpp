// The checks every reader makes before trusting a size its file claims.
#include <cstdint>
#include <limits>
#include <string>

#include "ImageFileCodecs.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace vorn {
namespace detail {
namespace {

std::string bytesText(std::uint64_t bytes) {
  if (bytes == std::numeric_limits<std::uint64_t>::max()) return "more than 2^64 bytes";
  return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

}  // namespace

void requireWithin(const std::string& path, const std::string& claim, std::uint64_t claimed,
                   std::uint64_t present, const std::string& where) {
  if (claimed <= present) return;
  throw ImageFileError(path, claim + " claims " + bytesText(claimed) + ", more than the " +
                                 bytesText(present) + " " + where);
}

void requireInflatable(const std::string& path, const std::string& claim, std::uint64_t claimed,
                       std::uint64_t compressed, const std::string& where) {
  const std::uint64_t bound = inflateBound(compressed);
  if (claimed <= bound) return;
  throw ImageFileError(path, claim + " claims " + bytesText(claimed) + ", more than the " +
                                 bytesText(compressed) + " " + where + " can expand to (at most " +
                                 std::to_string(bound) + ")");
}

}  // namespace detail
}  // namespace vorn

#include "Remap.hpp"

#include <algorithm>
#include <charconv>

#include "ParallelRows.hpp"
#include "PixelConversion.hpp"

namespace vorn {
namespace detail {
namespace {

// The buffer offset of every output index along every axis, kOutside kept.
std::vector<std::vector<long>> offsetTables(const Remapping& remapping, const Layout& input) {
  std::vector<std::vector<long>> tables;
  for (const AxisMap& axis : remapping.axes) {
    std::vector<long> table;
    for (long index : axis.index) {
      table.push_back(index == kOutside ? kOutside : index * input.stride[axis.inputAxis]);
    }
    tables.push_back(std::move(table));
  }
  return tables;
}

// Row 0's table cut into pieces that each read consecutive input pixels or lie outside: crop
// and pad then copy whole pieces where flip, with pieces of one pixel, gathers.
struct Piece {
  long begin, end;  // output indices along axis 0
  long source;      // input offset of the first pixel, or kOutside
};

std::vector<Piece> piecesOf(const std::vector<long>& row) {
  std::vector<Piece> pieces;
  for (long x = 0; x < static_cast<long>(row.size()); ++x) {
    const long source = row[static_cast<std::size_t>(x)];
    Piece* last = pieces.empty() ? nullptr : &pieces.back();
    const bool outside = source == kOutside;
    if (last && (outside ? last->source == kOutside
                         : last->source != kOutside && source == last->source + x - last->begin)) {
      last->end = x + 1;
    } else {
      pieces.push_back(Piece{x, x + 1, source});
    }
  }
  return pieces;
}

// Pieces shorter than this on average (flip's and permute's have one pixel) gather faster
// than they copy.
constexpr long kShortestPieces = 2;

template <class T>
void gather(const T* in, T* out, const std::vector<std::vector<long>>& tables,
            const std::vector<Piece>& pieces, T fill, long offset, const std::vector<long>& index,
            long begin, long width) {
  long base = 0;
  for (std::size_t axis = 1; axis < tables.size(); ++axis) {
    const long part = tables[axis][static_cast<std::size_t>(index[axis])];
    if (part == kOutside) {
      std::fill_n(out + offset + begin, width, fill);
      return;
    }
    base += part;
  }
  const long end = begin + width;
  if (static_cast<long>(pieces.size()) * kShortestPieces <= static_cast<long>(tables[0].size())) {
    for (const Piece& piece : pieces) {
      const long from = std::max(begin, piece.begin);
      const long to = std::min(end, piece.end);
      if (from >= to) continue;
      T* target = out + offset + from;
      if (piece.source == kOutside) {
        std::fill(target, target + (to - from), fill);
      } else {
        const T* source = in + base + piece.source + (from - piece.begin);
        std::copy(source, source + (to - from), target);
      }
    }
    return;
  }
  const long* row = tables[0].data();
  for (long x = begin; x < end; ++x) {
    out[offset + x] = row[x] == kOutside ? fill : in[base + row[x]];
  }
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find(',', begin)) != std::string::npos; begin = end + 1) {
    parts.push_back(text.substr(begin, end - begin));
  }
  parts.push_back(text.substr(begin));
  return parts;
}

bool parseLong(const std::string& text, long& value) {
  const char* last = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), last, value);
  return !text.empty() && result.ec == std::errc() && result.ptr == last;
}

}  // namespace

Remapping identityRemapping(const ImageObject& image) {
  const Layout layout = layoutOf(image);
  Remapping remapping;
  for (unsigned axis = 0; axis < layout.size.size(); ++axis) {
    std::vector<long> index(static_cast<std::size_t>(layout.size[axis]));
    for (long i = 0; i < layout.size[axis]; ++i) index[static_cast<std::size_t>(i)] = i;
    remapping.axes.push_back(AxisMap{axis, std::move(index)});
    remapping.spacing.push_back(image.getSpacing(axis));
    remapping.origin.push_back(image.getOrigin(axis));
  }
  return remapping;
}

void produceRemapped(ProcessObject& op, const ImageObject& image, const Remapping& remapping,
                     double fill, unsigned threads) {
  const ImagePtr output = outputImage(op, 0);
  Box box(static_cast<unsigned>(remapping.axes.size()));
  Layout layout;
  long stride = 1;
  for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
    const long size = static_cast<long>(remapping.axes[axis].index.size());
    box.m_size[axis] = static_cast<unsigned long>(size);
    layout.size.push_back(size);
    layout.stride.push_back(stride);
    stride *= size;
  }
  const std::vector<std::vector<long>> tables = offsetTables(remapping, layoutOf(image));
  const std::vector<Piece> pieces = piecesOf(tables[0]);
  const Region target = requestedRegion(output->m_regionOfInterest, layout);
  allocateForRegion(*output, image.getPointType(), box, layout, target);
  for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
    output->setSpacing(axis, remapping.spacing[axis]);
    output->setOrigin(axis, remapping.origin[axis]);
  }
  dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* in = static_cast<const T*>(image.getBuffer());
    T* out = static_cast<T*>(output->getBuffer());
    const T value = convertPixel<T>(fill);
    parallelRows(threads, layout, target,
                 [&](long offset, const std::vector<long>& index, long begin, long width) {
                   gather(in, out, tables, pieces, value, offset, index, begin, width);
                 });
  });
}

std::vector<long> wholeListParameter(ProcessObject& op, const std::string& name, unsigned axes,
                                     long minimum, long maximum, long fallback) {
  const std::string value = op.getParameterValue(name);
  if (value.empty()) return std::vector<long>(axes, fallback);
  std::vector<long> numbers;
  for (const std::string& part : split(value)) {
    long number = 0;
    if (!parseLong(part, number) || number < minimum || number > maximum) {
      throwBadParameter(op, name, value,
                        "expected whole numbers from " + std::to_string(minimum) + " to " +
                            std::to_string(maximum) + " separated by commas");
    }
    numbers.push_back(number);
  }
  if (numbers.size() != 1 && numbers.size() != axes) {
    throwBadParameter(op, name, value,
                      "expected 1 value or " + std::to_string(axes) + " (one per axis)");
  }
  numbers.resize(axes, numbers.front());
  return numbers;
}

std::vector<unsigned> axisListParameter(ProcessObject& op, const std::string& name, unsigned axes) {
  const std::string value = op.getParameterValue(name);
  std::vector<unsigned> list;
  if (value.empty()) return list;
  for (const std::string& part : split(value)) {
    long axis = 0;
    if (!parseLong(part, axis) || axis < 0 || axis >= static_cast<long>(axes)) {
      throwBadParameter(
          op, name, value,
          "expected axes from 0 to " + std::to_string(axes - 1) + " separated by commas");
    }
    if (std::find(list.begin(), list.end(), axis) != list.end()) {
      throwBadParameter(op, name, value, "axis " + part + " given twice");
    }
    list.push_back(static_cast<unsigned>(axis));
  }
  return list;
}

}  // namespace detail
}  // namespace vorn

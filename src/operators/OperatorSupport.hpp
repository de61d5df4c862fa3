// Helpers shared by the operators of vorn::operators: typed access to the images on their
// ports, parameter parsing with errors that name the operator, the parameter and the value,
// and a dispatch from a runtime pixel type to a typed function.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "WidestVectors.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/ProcessObject.hpp"

namespace vorn {
namespace detail {

using ImagePtr = boost::shared_ptr<ImageObject>;

// The image on input `index`. Throws std::invalid_argument naming the operator when the port
// holds no image or an image nothing has been computed into.
ImagePtr inputImage(ProcessObject& op, unsigned int index);
// The image held by output `index`; throws std::logic_error when the port holds none.
ImagePtr outputImage(ProcessObject& op, unsigned int index);
// Spacing and origin of every axis `to` shares with `from`.
void copyGeometry(const ImageObject& from, ImageObject& to);
// Gives `output` the box and geometry of `input` and pixels of `type`, left uninitialised. A
// fresh buffer costs a page fault per 4 KiB when first written, about what a whole pass over
// it costs, so an output that already has that box and type keeps its own buffer.
void shapeLike(const ImageObject& input, PixelType::Type type, ImageObject& output);

// "<operator>: parameter '<name>' has invalid value '<value>': <why>".
[[noreturn]] void throwBadParameter(const ProcessObject& op, const std::string& name,
                                    const std::string& value, const std::string& why);
// The whole value as a finite number; anything else throws through throwBadParameter.
double numberParameter(ProcessObject& op, const std::string& name);
// Empty value: no number (the operator's own default applies).
std::optional<double> optionalNumberParameter(ProcessObject& op, const std::string& name);
// Comma-separated finite numbers, at least one.
std::vector<double> numberListParameter(ProcessObject& op, const std::string& name);
// Parses `text` as a whole finite number, locale-independent; false when it is not one.
bool parseNumber(const std::string& text, double& value);

// Calls print(*stream) with 10 significant digits and the default float notation, after a line
// break when the stream is std::cout, then flushes and restores the stream's format; nothing
// when `stream` is null.
void printFigures(std::ostream* stream, const std::function<void(std::ostream&)>& print);

// A value standing for the element type T, for dispatchPixelType's callers.
template <class T>
struct PixelTag {
  using type = T;
};

// Calls f(PixelTag<T>{}) for the element type T of `type`; throws std::invalid_argument for a
// type without elements.
template <class F>
decltype(auto) dispatchPixelType(PixelType::Type type, F&& f) {
  switch (type) {
    case PixelType::UCHAR:
      return f(PixelTag<unsigned char>{});
    case PixelType::SHORT:
      return f(PixelTag<short>{});
    case PixelType::FLOAT:
      return f(PixelTag<float>{});
    default:
      throw std::invalid_argument("unsupported pixel type " + getTypeIdName(type));
  }
}

// Gives `output` the box, geometry and pixel type of `input` (a type without elements is
// refused before the output changes), then calls f(in, out) with the two buffers typed as that
// pixel type; f writes every pixel. An output that owns a buffer of that type and box already
// keeps it: a fresh one costs a page fault per 4 KiB, as much as a small filter's work.
template <class F>
void allocateLike(const ImageObject& input, ImageObject& output, F&& f) {
  const PixelType::Type type = input.getPointType();
  dispatchPixelType(type, [](auto) {});
  const bool reusable = output.getManageItsBuffer() && output.getBuffer() != nullptr &&
                        output.getBuffer() != input.getBuffer() && output.getPointType() == type &&
                        output.getBufferedRegion() == input.getBufferedRegion();
  if (!reusable) output.Allocate(type, input.getBufferedRegion());
  copyGeometry(input, output);
  dispatchPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    f(static_cast<const T*>(input.getBuffer()), static_cast<T*>(output.getBuffer()));
  });
}

}  // namespace detail
}  // namespace vorn

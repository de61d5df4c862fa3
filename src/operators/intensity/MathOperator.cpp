#include "vorn/operators/MathOperator.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "ParallelRows.hpp"
#include "PixelConversion.hpp"
#include "RegionOutput.hpp"
#include "vorn/Parameter.hpp"

namespace vorn {
namespace {

enum class Op { Add, Sub, Mul, Div, Min, Max, Abs, Sqrt, Log, Exp, Neg };

struct OpName {
  const char* name;
  Op op;
  bool binary;
};

constexpr OpName kOps[] = {
    {"add", Op::Add, true},  {"sub", Op::Sub, true},    {"mul", Op::Mul, true},
    {"div", Op::Div, true},  {"min", Op::Min, true},    {"max", Op::Max, true},
    {"abs", Op::Abs, false}, {"sqrt", Op::Sqrt, false}, {"log", Op::Log, false},
    {"exp", Op::Exp, false}, {"neg", Op::Neg, false}};

// What generateData checked before touching an image.
struct Request {
  OpName op;
  float value = 0.0f;
  PixelType::Type type = PixelType::FLOAT;
};

OpName opParameter(ProcessObject& op) {
  const std::string value = op.getParameterValue("op");
  for (const OpName& entry : kOps) {
    if (value == entry.name) return entry;
  }
  detail::throwBadParameter(op, "op", value,
                            "expected add, sub, mul, div, min, max, abs, sqrt, log, exp or neg");
}

Request readRequest(ProcessObject& op, unsigned images) {
  Request request{opParameter(op)};
  const std::string opName = request.op.name;
  const std::string value = op.getParameterValue("value");
  if (images == 2 && !request.op.binary) {
    detail::throwBadParameter(op, "op", opName, "takes one image, and this operator has two");
  }
  const bool needsValue = images == 1 && request.op.binary;
  if (!needsValue && !value.empty()) {
    detail::throwBadParameter(op, "value", value,
                              "not used by op=" + opName + (images == 2 ? " of two images" : ""));
  }
  if (needsValue && value.empty()) {
    detail::throwBadParameter(op, "value", value, "op=" + opName + " of one image needs a number");
  }
  if (needsValue) request.value = static_cast<float>(detail::numberParameter(op, "value"));
  request.type = detail::pixelTypeParameter(op, "type");
  return request;
}

std::string sizeText(const Box& box) {
  std::string text;
  for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
    text += (axis == 0 ? "" : "x") + std::to_string(box.m_size[axis]);
  }
  return text;
}

void checkSameSize(const ProcessObject& op, const ImageObject& a, const ImageObject& b) {
  const Box& first = a.getBufferedRegion();
  const Box& second = b.getBufferedRegion();
  bool same = first.m_dimension == second.m_dimension;
  for (unsigned axis = 0; same && axis < first.m_dimension; ++axis) {
    same = first.m_size[axis] == second.m_size[axis];
  }
  if (!same) {
    throw std::invalid_argument(op.getName() + ": input 1 is " + sizeText(second) +
                                " pixels but input 0 is " + sizeText(first) +
                                ": the images must have the same size");
  }
}

// NaN in, NaN out, as numpy.minimum and numpy.maximum.
float nanMin(float a, float b) { return std::isnan(a) || std::isnan(b) ? a + b : std::min(a, b); }
float nanMax(float a, float b) { return std::isnan(a) || std::isnan(b) ? a + b : std::max(a, b); }

// The second operand: another image's row, or the same number for every pixel.
struct Row {
  const float* pixel;
  float operator[](long i) const { return pixel[i]; }
};
struct Constant {
  float value;
  float operator[](long) const { return value; }
};

// One switch per row, then a plain loop the compiler vectorises.
template <class B>
void apply(Op op, const float* a, B b, float* r, long n) {
  switch (op) {
    case Op::Add:
      for (long i = 0; i < n; ++i) r[i] = a[i] + b[i];
      break;
    case Op::Sub:
      for (long i = 0; i < n; ++i) r[i] = a[i] - b[i];
      break;
    case Op::Mul:
      for (long i = 0; i < n; ++i) r[i] = a[i] * b[i];
      break;
    case Op::Div:
      for (long i = 0; i < n; ++i) r[i] = a[i] / b[i];
      break;
    case Op::Min:
      for (long i = 0; i < n; ++i) r[i] = nanMin(a[i], b[i]);
      break;
    case Op::Max:
      for (long i = 0; i < n; ++i) r[i] = nanMax(a[i], b[i]);
      break;
    case Op::Abs:
      for (long i = 0; i < n; ++i) r[i] = std::fabs(a[i]);
      break;
    case Op::Sqrt:
      for (long i = 0; i < n; ++i) r[i] = std::sqrt(a[i]);
      break;
    case Op::Log:
      for (long i = 0; i < n; ++i) r[i] = std::log(a[i]);
      break;
    case Op::Exp:
      for (long i = 0; i < n; ++i) r[i] = std::exp(a[i]);
      break;
    case Op::Neg:
      for (long i = 0; i < n; ++i) r[i] = -a[i];
      break;
  }
}

void loadRow(const ImageObject& image, long from, long n, float* row) {
  detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* pixels = static_cast<const T*>(image.getBuffer()) + from;
    std::copy(pixels, pixels + n, row);
  });
}

void storeRow(const float* row, long n, ImageObject& image, long from) {
  detail::dispatchPixelType(image.getPointType(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* pixels = static_cast<T*>(image.getBuffer()) + from;
    for (long i = 0; i < n; ++i) pixels[i] = detail::convertPixel<T>(row[i]);
  });
}

}  // namespace

MathOperator::MathOperator(unsigned int images) : m_images(images == 2 ? 2 : 1) {
  setName("MathOperator");
  for (unsigned i = 0; i < m_images; ++i) addInput("ImageObject");
  addOutput("ImageObject");
  addParameter(new Parameter("op", "add"));
  addParameter(new Parameter("value", ""));
  addParameter(new Parameter("type", "float"));
  addParameter(detail::threadsParameter());
}

void MathOperator::generateData() {
  const Request request = readRequest(*this, m_images);
  const unsigned threads = detail::threadsFor(*this);
  const detail::ImagePtr first = detail::inputImage(*this, 0);
  const detail::ImagePtr second = m_images == 2 ? detail::inputImage(*this, 1) : nullptr;
  if (second) checkSameSize(*this, *first, *second);
  const detail::ImagePtr output = detail::outputImage(*this, 0);
  const detail::Layout layout = detail::layoutOf(*first);
  const detail::Region target = detail::requestedRegion(output->m_regionOfInterest, layout);
  detail::shapeOutput(*output, request.type, first->getBufferedRegion());
  detail::copyGeometry(*first, *output);
  if (first->getPointType() == PixelType::FLOAT && request.type == PixelType::FLOAT &&
      (!second || second->getPointType() == PixelType::FLOAT)) {
    // Float in and out, the common case: straight from the inputs into the output.
    const float* a = static_cast<const float*>(first->getBuffer());
    const float* b = second ? static_cast<const float*>(second->getBuffer()) : nullptr;
    float* r = static_cast<float*>(output->getBuffer());
    detail::parallelRows(threads, layout, target,
                         [&](long offset, const std::vector<long>&, long begin, long width) {
                           const long at = offset + begin;
                           if (b) apply(request.op.op, a + at, Row{b + at}, r + at, width);
                           if (!b)
                             apply(request.op.op, a + at, Constant{request.value}, r + at, width);
                         });
  } else {
    detail::parallelRows(threads, layout, target,
                         [&](long offset, const std::vector<long>&, long begin, long width) {
                           std::vector<float> a(static_cast<std::size_t>(width));
                           std::vector<float> b(a.size(), request.value);
                           loadRow(*first, offset + begin, width, a.data());
                           if (second) loadRow(*second, offset + begin, width, b.data());
                           apply(request.op.op, a.data(), Row{b.data()}, a.data(), width);
                           storeRow(a.data(), width, *output, offset + begin);
                         });
  }
  detail::clearOutside(*output, layout, target, target, m_written);
}

std::vector<long> MathOperator::inputHalo(unsigned int axes) { return std::vector<long>(axes, 0); }

}  // namespace vorn

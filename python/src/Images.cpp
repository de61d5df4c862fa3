// Boxes, pixel types, images shared with NumPy without copying, and regions of interest.
#include <cstdint>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <vorn/Box.hpp>
#include <vorn/BoxRoi.hpp>
#include <vorn/ImageObject.hpp>
#include <vorn/MaskRoi.hpp>
#include <vorn/PixelType.hpp>
#include <vorn/ProcessObject.hpp>
#include <vorn/RestrictImageToRoi.hpp>
#include <vorn/RoiObject.hpp>

#include "Bindings.hpp"

namespace vorn::python {
namespace {

using ImagePtr = boost::shared_ptr<ImageObject>;

std::vector<unsigned long> sizesOf(const Box& box) {
  return {box.m_size, box.m_size + box.m_dimension};
}

Box boxOf(const std::vector<unsigned long>& size, const std::vector<long>& start) {
  if (!start.empty() && start.size() != size.size()) {
    throw py::value_error("a box needs as many starts as sizes");
  }
  Box box(static_cast<unsigned int>(size.size()));
  for (std::size_t axis = 0; axis < size.size(); ++axis) {
    box.m_size[axis] = size[axis];
    box.m_start[axis] = start.empty() ? 0 : start[axis];
  }
  return box;
}

void bindBox(py::module_& m) {
  py::class_<Box>(m, "Box")
      .def(py::init<unsigned int>(), py::arg("dimension") = 0)
      .def(py::init(&boxOf), py::arg("size"), py::arg("start") = std::vector<long>())
      .def_readonly("dimension", &Box::m_dimension)
      .def_property_readonly("size", &sizesOf)
      .def_property_readonly("start",
                             [](const Box& box) {
                               return std::vector<long>(box.m_start, box.m_start + box.m_dimension);
                             })
      .def("volume", &Box::volume)
      .def("__eq__", [](const Box& a, const Box& b) { return a == b; })
      .def("__repr__", [](const Box& box) {
        std::string text = "Box(size=[";
        for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
          text += (axis ? ", " : "") + std::to_string(box.m_size[axis]);
        }
        return text + "])";
      });
}

void bindPixelType(py::module_& m) {
  py::enum_<PixelType::Type>(m, "PixelType")
      .value("UNKNOWN", PixelType::UNKNOWN)
      .value("UCHAR", PixelType::UCHAR)
      .value("SHORT", PixelType::SHORT)
      .value("FLOAT", PixelType::FLOAT);
}

// NumPy's names of vorn's three pixel types.
const char* formatOf(PixelType::Type type) {
  switch (type) {
    case PixelType::UCHAR:
      return "B";
    case PixelType::SHORT:
      return "h";
    case PixelType::FLOAT:
      return "f";
    default:
      return nullptr;
  }
}

PixelType::Type typeOfArray(const py::array& array) {
  if (array.dtype().is(py::dtype::of<std::uint8_t>())) return PixelType::UCHAR;
  if (array.dtype().is(py::dtype::of<std::int16_t>())) return PixelType::SHORT;
  if (array.dtype().is(py::dtype::of<float>())) return PixelType::FLOAT;
  return PixelType::UNKNOWN;
}

// vorn's axis 0 varies fastest: it is NumPy's last axis.
py::buffer_info bufferOf(ImageObject& image) {
  const char* format = formatOf(image.getPointType());
  if (format == nullptr) throw py::buffer_error("the image has no pixels");
  const Box& box = image.getBufferedRegion();
  const auto itemsize = static_cast<py::ssize_t>(getSizeOf(image.getPointType()));
  std::vector<py::ssize_t> shape(box.m_dimension), strides(box.m_dimension);
  py::ssize_t stride = itemsize;
  for (unsigned axis = 0; axis < box.m_dimension; ++axis) {
    const std::size_t position = box.m_dimension - 1 - axis;
    shape[position] = static_cast<py::ssize_t>(box.m_size[axis]);
    strides[position] = stride;
    stride *= shape[position];
  }
  return py::buffer_info(image.getBuffer(), itemsize, format,
                         static_cast<py::ssize_t>(box.m_dimension), shape, strides);
}

// The image borrows the array's buffer; the array lives as long as the image does, whoever
// holds it last (Python or a port).
struct ArrayKeeper {
  py::object array;
  void operator()(ImageObject* image) const {
    delete image;
    const py::gil_scoped_acquire gil;
    const_cast<py::object&>(array) = py::object();
  }
};

ImagePtr fromArray(const py::array& given, bool copy) {
  py::array array = given;
  const PixelType::Type type = typeOfArray(array);
  const bool contiguous = (array.flags() & py::array::c_style) != 0;
  if (copy) {
    array = py::array(py::module_::import("numpy").attr("ascontiguousarray")(
        array, type == PixelType::UNKNOWN ? py::dtype::of<float>() : array.dtype()));
  } else if (type == PixelType::UNKNOWN || !contiguous) {
    throw py::type_error(
        "vorn.ImageObject.from_array needs a C-contiguous array of uint8, int16 or float32 "
        "(got " +
        std::string(py::str(array.dtype())) + (contiguous ? "" : ", not contiguous") +
        "); pass copy=True to convert it");
  }
  if (array.ndim() == 0) throw py::value_error("vorn images have at least one axis");
  std::vector<unsigned long> size;
  for (py::ssize_t axis = array.ndim() - 1; axis >= 0; --axis) {
    size.push_back(static_cast<unsigned long>(array.shape(axis)));
  }
  ImagePtr image(new ImageObject, ArrayKeeper{array});
  image->manageItsBuffer(false);
  image->restore(typeOfArray(array), boxOf(size, {}), array.mutable_data());
  return image;
}

void setAxes(ImageObject& image, const std::vector<double>& values, bool spacing) {
  if (values.size() != image.getDimension()) {
    throw py::value_error("one value per axis is needed (" + std::to_string(image.getDimension()) +
                          ")");
  }
  for (unsigned axis = 0; axis < values.size(); ++axis) {
    if (spacing) {
      image.setSpacing(axis, values[axis]);
    } else {
      image.setOrigin(axis, values[axis]);
    }
  }
}

// Spacing or origin as a tuple, one value per axis (empty while the image has no axes).
auto axesGetter(const double* (ImageObject::*values)() const) {
  return [values](const ImageObject& image) {
    const double* first = (image.*values)();
    const std::vector<double> axes = first == nullptr
                                         ? std::vector<double>()
                                         : std::vector<double>(first, first + image.getDimension());
    return py::tuple(py::cast(axes));
  };
}

auto axesSetter(bool spacing) {
  return [spacing](ImageObject& image, const std::vector<double>& values) {
    setAxes(image, values, spacing);
  };
}

void bindImageObject(py::module_& m) {
  py::class_<ImageObject, DataObject, ImagePtr>(m, "ImageObject", py::buffer_protocol())
      .def(py::init<>())
      .def_buffer(&bufferOf)
      .def_static("from_array", &fromArray, py::arg("array"), py::arg("copy") = false)
      .def("Allocate", &ImageObject::Allocate)
      .def("import_", &ImageObject::import, py::arg("source"),
           py::arg("generator").none(true) = nullptr)
      .def("initialize", &ImageObject::initialize)
      .def("getDimension", &ImageObject::getDimension)
      .def("getPixelNumber", &ImageObject::getPixelNumber)
      .def("getBufferedRegion", &ImageObject::getBufferedRegion)
      .def("getManageItsBuffer", &ImageObject::getManageItsBuffer)
      .def_property_readonly(
          "address",
          [](ImageObject& image) { return reinterpret_cast<std::uintptr_t>(image.getBuffer()); })
      .def_property("spacing", axesGetter(&ImageObject::getSpacing), axesSetter(true))
      .def_property("origin", axesGetter(&ImageObject::getOrigin), axesSetter(false))
      .def("print", &ImageObject::print);
}

void bindRegions(py::module_& m) {
  py::class_<RoiObject, boost::shared_ptr<RoiObject>>(m, "RoiObject")
      .def("getBoundingBox", &RoiObject::getBoundingBox);
  py::class_<BoxRoi, RoiObject, boost::shared_ptr<BoxRoi>>(m, "BoxRoi")
      .def(py::init<>())
      .def(py::init([](const Box& box) {
        boost::shared_ptr<BoxRoi> roi(new BoxRoi);
        roi->setBox(box);
        return roi;
      }))
      .def("getBox", &BoxRoi::getBox)
      .def("setBox", &BoxRoi::setBox);
  py::class_<MaskRoi, RoiObject, boost::shared_ptr<MaskRoi>>(m, "MaskRoi")
      .def(py::init<>())
      .def("setMaskImage", &MaskRoi::setMaskImage)
      .def("getMaskImage", &MaskRoi::getMaskImage);
  m.def("restrictImageToRoi",
        [](const ImagePtr& image, const ImagePtr& mask) { restrictImageToRoi(image, mask); });
}

}  // namespace

void bindImages(py::module_& m) {
  bindBox(m);
  bindPixelType(m);
  bindImageObject(m);
  bindRegions(m);
}

}  // namespace vorn::python

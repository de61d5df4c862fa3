// The Python module's shared declarations: vorn's objects are held by boost::shared_ptr on both
// sides, and each part of the API is bound by its own function.
#pragma once

#include <pybind11/pybind11.h>

#include <functional>

#include <boost/shared_ptr.hpp>

PYBIND11_DECLARE_HOLDER_TYPE(T, boost::shared_ptr<T>)

namespace vorn::python {

namespace py = pybind11;

void bindCore(py::module_& m);
void bindImages(py::module_& m);
void bindOperators(py::module_& m);
// Gives each catalog operator's class its help text; called once every class is bound.
void documentOperators();

// C++ keeps plain pointers (observers) or shares (pipelines) of objects Python may own; the
// Python side of such an object must live as long as C++ can call it. `owner` keeps `kept` in a
// set of its own until release() is called for the same pair.
void keep(py::handle owner, py::handle kept, const char* role);
void release(py::handle owner, py::handle kept, const char* role);

// Runs `call` (an update), turning the engine's failures into vorn.UpdateError; an exception a
// Python computation raised comes back as its __cause__, traceback included.
void translateUpdate(const std::function<void()>& call);

}  // namespace vorn::python

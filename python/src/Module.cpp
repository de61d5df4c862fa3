#include "Bindings.hpp"

PYBIND11_MODULE(_vorn, m) {
  m.doc() = "vorn: demand-driven image-processing pipelines";
  vorn::python::bindCore(m);
  vorn::python::bindImages(m);
  vorn::python::bindOperators(m);
  vorn::python::documentOperators();
}

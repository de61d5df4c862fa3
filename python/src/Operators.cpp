// The operator library, image files, Graphviz, pipeline text, and capturing the library's lines.
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include <vorn/ImageObject.hpp>
#include <vorn/operators/operators.hpp>

#include "Bindings.hpp"

namespace vorn::python {
namespace {

template <class Operator>
py::class_<Operator, ProcessObject, boost::shared_ptr<Operator>> bindOperator(py::module_& m,
                                                                              const char* name) {
  py::class_<Operator, ProcessObject, boost::shared_ptr<Operator>> cls(m, name, py::dynamic_attr());
  cls.def(py::init<>());
  return cls;
}

void bindOperatorClasses(py::module_& m) {
  bindOperator<GaussianSmoothing>(m, "GaussianSmoothing");
  bindOperator<BinaryThreshold>(m, "BinaryThreshold");
  bindOperator<CastOperator>(m, "CastOperator");
  bindOperator<MaskOperator>(m, "MaskOperator");
  bindOperator<ImageFileReader>(m, "ImageFileReader");
  bindOperator<ImageFileWriter>(m, "ImageFileWriter");
  py::class_<ImageStatistics>(m, "ImageStatistics")
      .def_readonly("count", &ImageStatistics::count)
      .def_readonly("min", &ImageStatistics::min)
      .def_readonly("max", &ImageStatistics::max)
      .def_readonly("mean", &ImageStatistics::mean)
      .def_readonly("stddev", &ImageStatistics::stddev)
      .def_readonly("sum", &ImageStatistics::sum);
  bindOperator<StatisticsOperator>(m, "StatisticsOperator")
      .def("getStatistics", &StatisticsOperator::getStatistics)
      .def("silence", [](StatisticsOperator& op) { op.setStream(nullptr); });
  m.def("createOperator", &createOperator, py::arg("name"));
  m.def("operatorNames", [] {
    std::vector<std::string> names;
    for (const OperatorInfo& info : operatorCatalog()) names.push_back(info.name);
    return names;
  });
}

void bindFiles(py::module_& m) {
  py::register_exception<ImageFileError>(m, "ImageFileError", PyExc_OSError);
  m.def("readImageFile", [](const std::string& path) {
    boost::shared_ptr<ImageObject> image(new ImageObject);
    readImageFile(path, *image);
    return image;
  });
  m.def("writeImageFile", &writeImageFile, py::arg("image"), py::arg("path"));
}

std::string graphviz(const std::vector<ProcessObject*>& roots) {
  std::ostringstream dot;
  writeGraphviz(dot, roots);
  return dot.str();
}

// What the statistics operators of the pipeline reported, one line each. Runs without the
// interpreter's lock, as update() does.
std::string runText(const std::string& text) {
  const std::unique_ptr<TextPipeline> pipeline = TextPipeline::build(text);
  std::ostringstream report;
  pipeline->setReportStream(&report);
  {
    const py::gil_scoped_release released;
    pipeline->run();
  }
  return report.str();
}

void bindText(py::module_& m) {
  py::register_exception<PipelineTextError>(m, "PipelineTextError", PyExc_ValueError);
  py::register_exception<PipelineRunError>(m, "PipelineRunError", PyExc_RuntimeError);
  m.def("writeGraphviz", &graphviz, py::arg("roots"));
  m.def("run", &runText, py::arg("text"));
}

// While entered, the library's lines go to a buffer instead of the process's standard output.
class OutputCapture {
 public:
  void enter() {
    if (m_previous == nullptr) m_previous = std::cout.rdbuf(m_text.rdbuf());
  }
  void exit() {
    if (m_previous != nullptr) std::cout.rdbuf(m_previous);
    m_previous = nullptr;
  }
  std::string text() const { return m_text.str(); }

 private:
  std::ostringstream m_text;
  std::streambuf* m_previous = nullptr;
};

// A whole number from 0 to 1024: a float, a string or a bool is a TypeError, anything out of
// range a ValueError.
unsigned int threadCountOf(const py::handle& count) {
  if (!PyLong_Check(count.ptr()) || PyBool_Check(count.ptr())) {
    throw py::type_error("set_threads: expected an int thread count, got " +
                         std::string(py::str(py::type::of(count).attr("__name__"))));
  }
  const long long value = PyLong_AsLongLong(count.ptr());
  if (value == -1 && PyErr_Occurred()) PyErr_Clear();
  if (value < 0 || value > 1024) {
    throw py::value_error("set_threads: thread count " + std::string(py::str(count)) +
                          " is not from 0 to 1024 (0: every core)");
  }
  return static_cast<unsigned int>(value);
}

void bindThreads(py::module_& m) {
  m.def(
      "set_threads", [](const py::object& count) { setThreadCount(threadCountOf(count)); },
      py::arg("count"),
      "Threads the operators split their pixel work across; 0 means every usable core.");
  m.def("thread_count", &threadCount, "The thread count in force, 0 resolved to the cores.");
}

void bindCapture(py::module_& m) {
  py::class_<OutputCapture>(m, "OutputCapture")
      .def(py::init<>())
      .def(
          "__enter__",
          [](OutputCapture& capture) -> OutputCapture& {
            capture.enter();
            return capture;
          },
          py::return_value_policy::reference)
      .def("__exit__", [](OutputCapture& capture, const py::args&) { capture.exit(); })
      .def_property_readonly("text", &OutputCapture::text);
}

}  // namespace

void bindOperators(py::module_& m) {
  bindOperatorClasses(m);
  bindFiles(m);
  bindText(m);
  bindThreads(m);
  bindCapture(m);
}

}  // namespace vorn::python

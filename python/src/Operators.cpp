// The operator library, image files, Graphviz, pipeline text, and capturing the library's lines.
#include <iostream>
#include <memory>
#include <optional>
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

// A catalog entry as a dict: what a host needs to offer the operator's parameters.
py::dict operatorInfo(const std::string& name) {
  const OperatorInfo* info = findOperator(name);
  if (info == nullptr) throw py::key_error("no operator named '" + name + "'");
  py::list parameters;
  for (const OperatorParameterInfo& parameter : info->parameters) {
    parameters.append(py::dict(py::arg("name") = parameter.name,
                               py::arg("default") = parameter.defaultValue,
                               py::arg("help") = parameter.help));
  }
  return py::dict(py::arg("name") = info->name, py::arg("summary") = info->summary,
                  py::arg("inputs") = info->inputs, py::arg("outputs") = info->outputs,
                  py::arg("parameters") = parameters);
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
  m.def("operatorInfo", &operatorInfo, py::arg("name"));
  m.def("operatorNames", [] {
    std::vector<std::string> names;
    for (const OperatorInfo& info : operatorCatalog()) names.push_back(info.name);
    return names;
  });
  // None for an operator that needs its whole input.
  m.def(
      "inputHalo",
      [](ProcessObject& op, unsigned int axes) -> std::optional<std::vector<long>> {
        auto* local = dynamic_cast<LocalOperator*>(&op);
        if (local == nullptr) return std::nullopt;
        return local->inputHalo(axes);
      },
      py::arg("operator"), py::arg("axes"));
}

void bindFiles(py::module_& m) {
  py::register_exception<ImageFileError>(m, "ImageFileError", PyExc_OSError);
  m.def(
      "readImageFile",
      [](const std::string& path, const std::string& series) {
        boost::shared_ptr<ImageObject> image(new ImageObject);
        ImageReadOptions options;
        options.series = series;
        readImageFile(path, *image, options);
        return image;
      },
      py::arg("path"), py::arg("series") = "");
  m.def("writeImageFile", &writeImageFile, py::arg("image"), py::arg("path"));
}

std::string graphviz(const std::vector<ProcessObject*>& roots) {
  std::ostringstream dot;
  writeGraphviz(dot, roots);
  return dot.str();
}

// What the statistics operators of the pipeline reported, one line each.
std::string runText(const std::string& text) {
  const std::unique_ptr<TextPipeline> pipeline = TextPipeline::build(text);
  std::ostringstream report;
  pipeline->setReportStream(&report);
  pipeline->run();
  return report.str();
}

void bindText(py::module_& m) {
  py::register_exception<PipelineTextError>(m, "PipelineTextError", PyExc_ValueError);
  py::register_exception<PipelineRunError>(m, "PipelineRunError", PyExc_RuntimeError);
  m.def("writeGraphviz", &graphviz, py::arg("roots"));
  // The operators stay the pipeline's: the lists are valid while the pipeline lives (a list
  // cannot keep it alive), an operator found by name keeps it alive itself.
  py::class_<TextPipeline, std::unique_ptr<TextPipeline>>(m, "TextPipeline")
      .def_static("build", &TextPipeline::build, py::arg("text"))
      .def("operators", &TextPipeline::operators, py::return_value_policy::reference)
      .def("sinks", &TextPipeline::sinks, py::return_value_policy::reference)
      .def("find", &TextPipeline::find, py::return_value_policy::reference_internal)
      .def("run", &TextPipeline::run)
      .def("silence", [](TextPipeline& pipeline) { pipeline.setReportStream(nullptr); });
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
  bindCapture(m);
}

}  // namespace vorn::python

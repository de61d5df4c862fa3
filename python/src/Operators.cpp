// The operator library, image files, Graphviz, pipeline text, and capturing the library's lines.
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include <vorn/ImageObject.hpp>
#include <vorn/Parameter.hpp>
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

// Math, rescale, otsu, label statistics, crop, pad, flip, permute, resample.
void bindIntensityAndGeometry(py::module_& m) {
  py::class_<MathOperator, ProcessObject, boost::shared_ptr<MathOperator>>(m, "MathOperator",
                                                                           py::dynamic_attr())
      .def(py::init<unsigned int>(), py::arg("images") = 1);
  bindOperator<RescaleIntensity>(m, "RescaleIntensity");
  bindOperator<OtsuThreshold>(m, "OtsuThreshold")
      .def("getThreshold", &OtsuThreshold::getThreshold)
      .def_static("histogram", &OtsuThreshold::histogram, py::arg("image"), py::arg("min"),
                  py::arg("max"), py::arg("threads") = 1)
      .def_static("thresholdOf", &OtsuThreshold::thresholdOf, py::arg("counts"), py::arg("min"),
                  py::arg("max"));
  py::class_<LabelFigures>(m, "LabelFigures")
      .def_readonly("label", &LabelFigures::label)
      .def_readonly("figures", &LabelFigures::figures)
      .def_readonly("start", &LabelFigures::start)
      .def_readonly("size", &LabelFigures::size);
  bindOperator<LabelStatistics>(m, "LabelStatistics")
      .def("getStatistics", &LabelStatistics::getStatistics)
      .def("silence", [](LabelStatistics& op) { op.setStream(nullptr); });
  bindOperator<CropOperator>(m, "CropOperator");
  bindOperator<PadOperator>(m, "PadOperator");
  bindOperator<FlipOperator>(m, "FlipOperator");
  bindOperator<PermuteAxes>(m, "PermuteAxes");
  bindOperator<ResampleOperator>(m, "ResampleOperator");
}

void bindOperatorClasses(py::module_& m) {
  bindOperator<GaussianSmoothing>(m, "GaussianSmoothing");
  bindOperator<BinaryThreshold>(m, "BinaryThreshold");
  bindOperator<CastOperator>(m, "CastOperator");
  bindOperator<MaskOperator>(m, "MaskOperator");
  bindOperator<ImageFileReader>(m, "ImageFileReader");
  bindOperator<ImageFileWriter>(m, "ImageFileWriter");
  // Filters and morphology.
  bindOperator<MedianFilter>(m, "MedianFilter");
  bindOperator<GradientMagnitude>(m, "GradientMagnitude");
  bindOperator<LaplacianOfGaussian>(m, "LaplacianOfGaussian");
  bindOperator<Erosion>(m, "Erosion");
  bindOperator<Dilation>(m, "Dilation");
  bindOperator<Opening>(m, "Opening");
  bindOperator<Closing>(m, "Closing");
  bindOperator<ConnectedComponents>(m, "ConnectedComponents");
  bindOperator<LargestComponents>(m, "LargestComponents");
  bindOperator<FillHoles>(m, "FillHoles");
  bindOperator<DistanceMap>(m, "DistanceMap");
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
  bindIntensityAndGeometry(m);
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
  // A pipeline kept to be fed and updated from Python. Its operators stay the pipeline's: each
  // one handed out keeps the pipeline alive; the list of sinks is valid while it lives.
  py::class_<TextPipeline, std::unique_ptr<TextPipeline>>(m, "TextPipeline")
      .def_static("build", py::overload_cast<const std::string&>(&TextPipeline::build),
                  py::arg("text"))
      .def_static("buildOpen", &TextPipeline::buildOpen, py::arg("text"))
      .def("operators",
           [](py::object self) {
             py::list ops;
             for (ProcessObject* op : self.cast<TextPipeline&>().operators()) {
               ops.append(py::cast(op, py::return_value_policy::reference_internal, self));
             }
             return ops;
           })
      .def("sinks", &TextPipeline::sinks, py::return_value_policy::reference)
      .def("find", &TextPipeline::find, py::return_value_policy::reference_internal)
      .def("run", &TextPipeline::run)
      .def("silence", [](TextPipeline& pipeline) { pipeline.setReportStream(nullptr); })
      .def("commands", &TextPipeline::commands)
      .def("openInputs", [](py::object self) {
        py::list inputs;
        for (const auto& [op, index] : self.cast<TextPipeline&>().openInputs()) {
          inputs.append(py::make_tuple(
              py::cast(op, py::return_value_policy::reference_internal, self), index));
        }
        return inputs;
      });
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

std::string parameterHelp(const OperatorInfo& info, const std::string& name) {
  for (const OperatorParameterInfo& parameter : info.parameters) {
    if (parameter.name == name) return ": " + parameter.help;
  }
  return "";
}

// The catalog's summary, and the parameters a new instance declares, with their defaults.
std::string operatorDoc(const OperatorInfo& info, const ProcessObject& op) {
  std::ostringstream doc;
  doc << info.summary << "\n\nIn pipeline text: '" << info.name << "', " << info.inputs
      << " input(s), " << info.outputs << " output(s).\n\nParameters (setParameterValue):";
  const std::vector<const Parameter*> parameters = op.getParameters();
  for (const Parameter* parameter : parameters) {
    doc << "\n    " << parameter->getIDName() << " = '" << parameter->getValue() << "'"
        << parameterHelp(info, parameter->getIDName());
  }
  if (parameters.empty()) doc << " none.";
  return doc.str() + "\n";
}

}  // namespace

void documentOperators() {
  const py::type base = py::type::of<ProcessObject>();
  std::ostringstream lifecycleLines;  // the engine announces each operator's destruction
  const std::unique_ptr<std::streambuf, void (*)(std::streambuf*)> restore(
      std::cout.rdbuf(lifecycleLines.rdbuf()), [](std::streambuf* out) { std::cout.rdbuf(out); });
  // One class may serve several catalog names (math and math2): its help has a part for each.
  std::map<PyObject*, std::string> docs;
  for (const OperatorInfo& info : operatorCatalog()) {
    const boost::shared_ptr<ProcessObject> op = info.create();
    const py::type type = py::type::of(py::cast(op));
    if (type.is(base)) continue;
    std::string& doc = docs[type.ptr()];
    doc += (doc.empty() ? "" : "\n") + operatorDoc(info, *op);
    type.attr("__doc__") = doc;
  }
}

void bindOperators(py::module_& m) {
  bindOperatorClasses(m);
  bindFiles(m);
  bindText(m);
  bindThreads(m);
  bindCapture(m);
}

}  // namespace vorn::python

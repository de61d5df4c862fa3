// Operators, ports, parameters, observers, pipelines and the repercussion switch.
#include <chrono>
#include <ios>
#include <stdexcept>
#include <string>

#include <pybind11/stl.h>

#include <vorn/BasePipeline.hpp>
#include <vorn/DataObject.hpp>
#include <vorn/IObserver.hpp>
#include <vorn/Parameter.hpp>
#include <vorn/PortData.hpp>
#include <vorn/PortProxy.hpp>
#include <vorn/ProcessObject.hpp>
#include <vorn/Repercussion.hpp>
#include <vorn/RoiObject.hpp>

#include "Bindings.hpp"

namespace vorn::python {
namespace {

// The exception a Python computation raised, kept from the engine's catch to the end of the
// update, where it becomes the cause of the UpdateError. One per thread, as updates of other
// pipelines may run on other threads meanwhile; never destroyed: it may outlive the interpreter.
py::object& pendingCause() {
  static thread_local auto* cause = new py::object();
  return *cause;
}

py::object& updateErrorType() {
  static auto* type = new py::object();
  return *type;
}

// generateData() written in Python, run with the interpreter's lock that update() let go of.
// Its exception leaves as a C++ one carrying the message, as the engine expects, and is kept for
// update() to chain.
class PyProcessObject : public ProcessObject {
 public:
  void generateData() override {
    const py::gil_scoped_acquire gil;
    try {
      PYBIND11_OVERRIDE_PURE(void, ProcessObject, generateData);
    } catch (py::error_already_set& error) {
      py::object cause = error.value();
      if (error.trace()) PyException_SetTraceback(cause.ptr(), error.trace().ptr());
      pendingCause() = cause;
      throw std::runtime_error(error.what());
    }
  }
};

// An observer written in Python listens to the events it defines; the others do nothing.
class PyObserver : public IObserver {
 public:
  void onDataHasBeenGenerated(ProcessObject* op) override { call("onDataHasBeenGenerated", op); }
  void onStartComputingData(ProcessObject* op) override { call("onStartComputingData", op); }
  void onInvalidated(ProcessObject* op) override { call("onInvalidated", op); }
  void onValidated(ProcessObject* op) override { call("onValidated", op); }
  void onParameterHasBeenChanged(ProcessObject* op) override {
    call("onParameterHasBeenChanged", op);
  }

 private:
  void call(const char* event, ProcessObject* op) {
    const py::gil_scoped_acquire gil;
    if (const py::function handler = py::get_override(static_cast<const IObserver*>(this), event)) {
      handler(op);
    }
  }
};

void bindPorts(py::module_& m) {
  py::class_<Port>(m, "Port")
      .def("getData", &Port::getData)
      .def("getRelatedDataType", &Port::getRelatedDataType)
      .def("getParent", py::overload_cast<>(&Port::getParent), py::return_value_policy::reference)
      .def("getNumberOfUse", &Port::getNumberOfUse);
  py::class_<PortProxy, Port>(m, "PortProxy")
      .def("connectTo", &PortProxy::connectTo, py::arg("port").none(true))
      .def("disconnect", &PortProxy::disconnect)
      .def("isConnectedTo", &PortProxy::isConnectedTo, py::arg("port").none(true))
      .def("getConnection", py::overload_cast<>(&PortProxy::getConnection),
           py::return_value_policy::reference);
  py::class_<PortData, Port>(m, "PortData").def("setData", &PortData::setData);
}

void bindDataObject(py::module_& m) {
  py::class_<DataObject, boost::shared_ptr<DataObject>>(m, "DataObject")
      .def("update", [](DataObject& data) { translateUpdate([&data] { data.update(); }); })
      .def("isUptodate", &DataObject::isUptodate)
      .def("getGenerator", &DataObject::getGenerator, py::return_value_policy::reference)
      .def("setGenerator", &DataObject::setGenerator, py::arg("generator").none(true))
      .def("getPointType", &DataObject::getPointType);
}

void bindObserver(py::module_& m) {
  py::class_<IObserver, PyObserver>(m, "IObserver", py::dynamic_attr()).def(py::init<>());
}

// Ports belong to their operator: a port handed to Python keeps the operator alive.
template <class Class>
void bindPortAccess(Class& cls) {
  cls.def("addInput", &ProcessObject::addInput)
      .def("addOutput", &ProcessObject::addOutput)
      .def("getNumberOfInputPorts", &ProcessObject::getNumberOfInputPorts)
      .def("getNumberOfOutputPorts", &ProcessObject::getNumberOfOutputPorts)
      .def("getInputPort", py::overload_cast<unsigned int>(&ProcessObject::getInputPort),
           py::return_value_policy::reference_internal)
      .def("getOutputPort", py::overload_cast<unsigned int>(&ProcessObject::getOutputPort),
           py::return_value_policy::reference_internal)
      .def("setInputPort", &ProcessObject::setInputPort, py::arg("index"),
           py::arg("port").none(true))
      .def("disconnectAllPorts", &ProcessObject::disconnectAllPorts)
      .def("disconnectAllInputPorts", &ProcessObject::disconnectAllInputPorts)
      .def("disconnectAllOutputPorts", &ProcessObject::disconnectAllOutputPorts);
}

template <class Class>
void bindObserverAccess(Class& cls) {
  cls.def("attachObserver",
          [](py::object self, IObserver* observer) {
            self.cast<ProcessObject&>().attachObserver(observer);
            keep(self, py::cast(observer), "observers");
          })
      .def("detachObserver", [](py::object self, IObserver* observer) {
        self.cast<ProcessObject&>().detachObserver(observer);
        release(self, py::cast(observer), "observers");
      });
}

template <class Class>
void bindStateAccess(Class& cls) {
  cls.def("update", [](ProcessObject& op) { translateUpdate([&op] { op.update(); }); })
      .def("updateWithNoRepercussion",
           [](ProcessObject& op) { translateUpdate([&op] { op.updateWithNoRepercussion(); }); })
      .def("isInvalidated", &ProcessObject::isInvalidated)
      .def("setToInvalidated", &ProcessObject::setToInvalidated)
      .def("setToValidated", &ProcessObject::setToValidated)
      .def("isComposite", &ProcessObject::isComposite)
      .def("getName", &ProcessObject::getName)
      .def("setName", &ProcessObject::setName)
      .def("getParent", &ProcessObject::getParent, py::return_value_policy::reference)
      .def("print", &ProcessObject::print)
      .def(
          "addParameter",
          [](ProcessObject& op, const std::string& name, const std::string& value) {
            op.addParameter(new Parameter(name, value));
          },
          py::arg("idName"), py::arg("value") = "")
      .def("getParameterValue", &ProcessObject::getParameterValue)
      .def("setParameterValue", &ProcessObject::setParameterValue)
      .def("getParameterNames",
           [](const ProcessObject& op) {
             std::vector<std::string> names;
             for (const Parameter* parameter : op.getParameters()) {
               names.push_back(parameter->getIDName());
             }
             return names;
           })
      .def("setRequestedRegionOfInterest",
           [](ProcessObject& op, unsigned int index, const boost::shared_ptr<RoiObject>& roi) {
             op.setRequestedRegionOfInterest(index, roi);
           })
      .def("isIgnorePreviousROI", &ProcessObject::isIgnorePreviousROI)
      .def("setIgnorePreviousROI", &ProcessObject::setIgnorePreviousROI);
}

void bindProcessObject(py::module_& m) {
  py::class_<ProcessObject, PyProcessObject, boost::shared_ptr<ProcessObject>> cls(
      m, "ProcessObject", py::dynamic_attr());
  cls.def(py::init<>())
      .def("generateData", &ProcessObject::generateData, py::call_guard<py::gil_scoped_release>());
  bindPortAccess(cls);
  bindObserverAccess(cls);
  bindStateAccess(cls);
}

void bindPipeline(py::module_& m) {
  py::class_<BasePipeline, ProcessObject, boost::shared_ptr<BasePipeline>>(m, "BasePipeline",
                                                                           py::dynamic_attr())
      .def(py::init<>())
      .def("registerOperator",
           [](py::object self, const boost::shared_ptr<ProcessObject>& op) {
             self.cast<BasePipeline&>().registerOperator(op);
             keep(self, py::cast(op), "operators");
           })
      .def("unRegisterOperator",
           [](py::object self, const boost::shared_ptr<ProcessObject>& op) {
             self.cast<BasePipeline&>().unRegisterOperator(op);
             release(self, py::cast(op), "operators");
           })
      .def("isContainingProcessObject", py::overload_cast<const ProcessObject*>(
                                            &BasePipeline::isContainingProcessObject, py::const_))
      .def("getOperators", &BasePipeline::getOperators, py::return_value_policy::reference)
      .def("setInputPort", &BasePipeline::setInputPort, py::arg("index"),
           py::arg("port").none(true));
}

// Seconds per call of `op`'s generateData() from C++, as the engine calls it: what a computation
// written in Python costs beyond the engine's own work (scripts/bench_python.py).
double generateDataSeconds(ProcessObject& op, int repeats) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repeats; ++i) op.generateData();
  const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / repeats;
}

void bindRepercussion(py::module_& m) {
  py::class_<Repercussion>(m, "Repercussion")
      .def_static("isEnable", &Repercussion::isEnable)
      .def_static("setEnable", &Repercussion::setEnable);
}

}  // namespace

void keep(py::handle owner, py::handle kept, const char* role) {
  // A Python object that only points at a C++ object owned elsewhere may go before it: what that
  // object must call is then kept to the end of the process instead.
  if (!reinterpret_cast<py::detail::instance*>(owner.ptr())->owned) {
    static auto* immortal = new py::list();
    immortal->append(kept);
    return;
  }
  py::dict attributes = owner.attr("__dict__");
  const std::string key = std::string("_vorn_") + role;
  if (!attributes.contains(key)) attributes[key.c_str()] = py::list();
  py::list held = attributes[key.c_str()];
  held.append(kept);
}

void release(py::handle owner, py::handle kept, const char* role) {
  py::dict attributes = owner.attr("__dict__");
  const std::string key = std::string("_vorn_") + role;
  if (!attributes.contains(key)) return;
  py::list held = attributes[key.c_str()];
  for (std::size_t i = 0; i < held.size(); ++i) {
    if (held[i].ptr() == kept.ptr()) {
      held.attr("pop")(i);
      return;
    }
  }
}

void translateUpdate(const std::function<void()>& call) {
  pendingCause() = py::object();
  try {
    // C++ operators compute without the interpreter's lock, so other Python threads run
    // meanwhile; Python operators and observers take it back while they run.
    const py::gil_scoped_release released;
    call();
  } catch (const std::ios_base::failure& failure) {
    py::object error = updateErrorType()(failure.what());
    py::object cause = std::move(pendingCause());
    pendingCause() = py::object();
    if (cause) PyException_SetCause(error.ptr(), cause.release().ptr());
    PyErr_SetObject(updateErrorType().ptr(), error.ptr());
    throw py::error_already_set();
  }
}

void bindCore(py::module_& m) {
  updateErrorType() = py::reinterpret_borrow<py::object>(
      py::register_exception<std::ios_base::failure>(m, "UpdateError", PyExc_RuntimeError).ptr());
  bindPorts(m);
  bindDataObject(m);
  bindObserver(m);
  bindProcessObject(m);
  bindPipeline(m);
  bindRepercussion(m);
  m.def("_generateDataSeconds", &generateDataSeconds, py::arg("op"), py::arg("repeats"));
}

}  // namespace vorn::python

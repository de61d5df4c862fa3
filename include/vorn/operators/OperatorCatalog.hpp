// vorn/operators/OperatorCatalog.hpp
//
// The operator catalog: every operator of vorn::operators under its command-line name, with
// a one-line summary, its parameters and a factory. vorn-run and the pipeline text look
// operators up here.
//
//   boost::shared_ptr<vorn::ProcessObject> blur = vorn::createOperator("gaussian");
//   for (const vorn::OperatorInfo& info : vorn::operatorCatalog()) std::cout << info.name;
//
// The entries are built once and live as long as the library is loaded; the factory makes a
// new, unconnected operator with its default parameters each time.
#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// One parameter of a catalog operator, with its default and help.
struct OperatorParameterInfo {
  std::string name;          // as written in pipeline text
  std::string defaultValue;  // its value when not given
  std::string help;          // one short line
};

// A catalog entry: an operator by its command-line name.
struct OperatorInfo {
  std::string name;                               // the command-line name, such as "gaussian"
  std::string summary;                            // one line for the help text
  std::vector<OperatorParameterInfo> parameters;  // in the order of the help text
  unsigned int inputs;                            // number of input ports
  unsigned int outputs;                           // number of output ports
  boost::shared_ptr<ProcessObject> (*create)();   // makes a new operator of this kind
};

// Every operator, in the order --help lists them.
VORN_OPERATORS_API const std::vector<OperatorInfo>& operatorCatalog();
// The entry named `name` (exact, case-sensitive), or null.
VORN_OPERATORS_API const OperatorInfo* findOperator(const std::string& name);
// A new operator of that name, or null when there is none.
VORN_OPERATORS_API boost::shared_ptr<ProcessObject> createOperator(const std::string& name);

}  // namespace vorn

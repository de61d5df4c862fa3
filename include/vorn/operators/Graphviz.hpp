// vorn/operators/Graphviz.hpp
//
// writeGraphviz: the graph upstream of some operators as Graphviz DOT text, for `dot -Tsvg`.
//
//   std::ofstream file("pipeline.dot");
//   vorn::writeGraphviz(file, {&writer});
//
// Each operator is a box labelled with its name and its parameters (key=value); a composite
// (a BasePipeline) is a cluster holding its inner operators, nested as the pipelines are. An
// edge goes from the operator that generates the data to the one that reads it, labelled with
// the input index when the reader has more than one input. Invalidated operators have a dashed
// red border and "(invalidated)" in their label.
//
// Node ids are op0, op1, ... in discovery order (the roots first, then upstream, inputs in
// index order), so the same graph always gives the same text. The walk uses the public API
// only, reads no data and changes nothing; it ends on any graph, cycles included. Operators
// must stay alive during the call.
#pragma once

#include <ostream>
#include <vector>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// Null roots are skipped.
VORN_OPERATORS_API void writeGraphviz(std::ostream& os, const std::vector<ProcessObject*>& roots);
// The graph of everything upstream of `root`.
VORN_OPERATORS_API void writeGraphviz(std::ostream& os, ProcessObject& root);

}  // namespace vorn

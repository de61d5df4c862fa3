// vorn/operators/LabelStatistics.hpp
//
// LabelStatistics: passes input 0 through unchanged (a copy) and reports, for every label of
// the UCHAR or SHORT label image on input 1 (same size), the figures StatisticsOperator gives
// for the whole image (count, min, max, mean, population stddev, sum) over that label's pixels,
// and the label's bounding box.
//
//   vorn::LabelStatistics stats;                    // input 0: values, input 1: labels
//   stats.setStream(&log);                          // default std::cout; null prints nothing
//   ... update ...
//   for (const vorn::LabelFigures& f : stats.getStatistics()) use(f.label, f.figures.mean);
//
// One line per label, in increasing label order: "<name>: label=L count=... min=... max=...
// mean=... stddev=... sum=... box=START:SIZE", the box written as vorn-run's roi= takes it
// (axis 0 first), so it can be pasted as a region of interest. Label 0 is the background and
// is not reported. NaN pixels count for the box but are left out of the figures. Parameters:
// threads (see Threads.hpp); the figures are the same for every thread count.
//
// A separate operator rather than a second input of StatisticsOperator: every input port of
// an operator must be fed, and stats has always had one.
#pragma once

#include <ostream>
#include <vector>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace vorn {

// The figures of one label: its value, the statistics of its pixels, and its bounding box.
struct LabelFigures {
  long label = 0;           // the label's value, never 0
  ImageStatistics figures;  // over the label's pixels, NaN left out
  std::vector<long> start;  // the box's first index per axis, axis 0 first
  std::vector<long> size;   // its size per axis
};

// Statistics and bounding box of every label of a label image.
class VORN_OPERATORS_API LabelStatistics : public ProcessObject {
 public:
  LabelStatistics();
  void generateData() override;

  // Where the lines go; null silences them (not owned).
  void setStream(std::ostream* stream);
  // The figures of the last computation, by increasing label; empty before the first.
  const std::vector<LabelFigures>& getStatistics() const;

 private:
  std::ostream* m_stream;
  std::vector<LabelFigures> m_statistics;
};

}  // namespace vorn

// vorn/operators/StatisticsOperator.hpp
//
// StatisticsOperator: passes its input through unchanged (a copy) and reports the count,
// minimum, maximum, mean, population standard deviation and sum of the pixel values.
//
//   vorn::StatisticsOperator stats;
//   stats.setStream(&log);  // default std::cout; null prints nothing
//   ... update ...
//   double mean = stats.getStatistics().mean;
//
// Each computation writes one line, "<name>: count=... min=... max=... mean=... stddev=...
// sum=...". On std::cout the line starts with a line end, since the engine's "Processing with
// operator" line is still open while the operator computes.
//
// NaN pixels are left out of every figure, so count is the number of pixels that are numbers.
// With no such pixel, count and sum are 0 and the other figures NaN.
//
// Sharp edges: the stream is not owned and must outlive every update that prints to it.
#pragma once

#include <ostream>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// The figures of a StatisticsOperator computation; NaN pixels left out.
struct ImageStatistics {
  unsigned long count = 0;  // pixels counted (NaN left out)
  double min = 0.0;         // smallest value
  double max = 0.0;         // largest value
  double mean = 0.0;        // sum divided by count
  double stddev = 0.0;      // population: divided by count
  double sum = 0.0;         // compensated sum
};

// Count, min, max, mean, standard deviation and sum of an image.
class VORN_OPERATORS_API StatisticsOperator : public ProcessObject {
 public:
  StatisticsOperator();
  void generateData() override;

  // Where the statistics line goes; null silences it (not owned).
  void setStream(std::ostream* stream);
  // The figures of the last computation; all 0 before the first.
  const ImageStatistics& getStatistics() const;

 private:
  std::ostream* m_stream;
  ImageStatistics m_statistics;
};

}  // namespace vorn

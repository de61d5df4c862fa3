// VornRun.hpp: the vorn-run command line as a function, so tests run it in-process.
//
//   runVornRun({"-q", "read file=in.png ! gaussian sigma=2 ! write file=out.png"},
//              std::cout, std::cerr);
//
// The arguments (without the program name) are options, then the pipeline text, whose words
// are joined with blanks (see vorn/operators/PipelineText.hpp). Progress goes to std::cout,
// where the library writes it; vorn-run's own lines, the stats lines and --help go to `out`,
// and a failure is one line starting "vorn-run: " on `err`. Returns the exit status: 0 on
// success, 1 for a failure while running, 2 for a malformed pipeline or a bad option.
//
// Sharp edge: std::cout's buffer is swapped for a null one while the library's lines are
// silenced, and put back before returning; not for use from several threads at once.
#pragma once

#include <ostream>
#include <string>
#include <vector>

int runVornRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

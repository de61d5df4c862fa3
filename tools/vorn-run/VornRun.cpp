#include "VornRun.hpp"

#include <chrono>
#include <exception>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <streambuf>

#include "vorn/operators/Graphviz.hpp"
#include "vorn/operators/OperatorCatalog.hpp"
#include "vorn/operators/PipelineText.hpp"
#include "vorn/operators/Threads.hpp"

namespace {

constexpr const char* kVersion = VORN_VERSION;  // the project version, from the build

enum Status { kSuccess = 0, kRunFailed = 1, kMalformed = 2 };

struct Options {
  bool quiet = false;
  bool help = false;
  bool version = false;
  std::string dotFile;
  int threads = -1;  // -1: not given
  std::vector<std::string> pipeline;
};

// A thread count of at most 1024, digits only; -1 when `text` is not one.
int threadCountOf(const std::string& text) {
  if (text.empty() || text.size() > 4 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  const int count = std::stoi(text);
  return count <= 1024 ? count : -1;
}

// While it lives, the library runs with the count of -j when one was given.
class ThreadCountScope {
 public:
  explicit ThreadCountScope(int count) : m_previous(vorn::threadCount()), m_set(count >= 0) {
    if (m_set) vorn::setThreadCount(static_cast<unsigned int>(count));
  }
  ~ThreadCountScope() {
    if (m_set) vorn::setThreadCount(m_previous);
  }
  ThreadCountScope(const ThreadCountScope&) = delete;
  ThreadCountScope& operator=(const ThreadCountScope&) = delete;

 private:
  unsigned int m_previous;
  bool m_set;
};

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// Forwards to another buffer and remembers whether the last line written is still open.
class LineTracker : public std::streambuf {
 public:
  explicit LineTracker(std::streambuf* target) : m_target(target) {}
  bool lineOpen() const { return m_open; }

 protected:
  int overflow(int c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    m_open = traits_type::to_char_type(c) != '\n';
    return m_target->sputc(traits_type::to_char_type(c));
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    if (count > 0) m_open = text[count - 1] != '\n';
    return m_target->sputn(text, count);
  }
  int sync() override { return m_target->pubsync(); }

 private:
  std::streambuf* m_target;
  bool m_open = false;
};

// While it lives, what the library writes to std::cout goes to `replacement`.
class CoutRedirect {
 public:
  explicit CoutRedirect(std::streambuf* replacement) : m_previous(std::cout.rdbuf(replacement)) {}
  ~CoutRedirect() { std::cout.rdbuf(m_previous); }
  CoutRedirect(const CoutRedirect&) = delete;
  CoutRedirect& operator=(const CoutRedirect&) = delete;

 private:
  std::streambuf* m_previous;
};

// The reason, or "" when the options are fine.
std::string parseOptions(const std::vector<std::string>& args, Options& options) {
  std::size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--") {
      ++i;
      break;
    } else if (arg == "-q" || arg == "--quiet") {
      options.quiet = true;
    } else if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg == "--version") {
      options.version = true;
    } else if (arg == "--dot") {
      if (i + 1 == args.size() || args[i + 1].empty()) return "--dot needs a file name";
      options.dotFile = args[++i];
    } else if (arg == "-j" || arg == "--threads") {
      options.threads = i + 1 < args.size() ? threadCountOf(args[++i]) : -1;
      if (options.threads < 0) return arg + " needs a thread count from 0 to 1024";
    } else if (arg.size() > 1 && arg[0] == '-') {
      return "unknown option '" + arg + "' (see vorn-run --help)";
    } else {
      break;
    }
  }
  options.pipeline.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  return "";
}

void printOperators(std::ostream& out) {
  for (const vorn::OperatorInfo& info : vorn::operatorCatalog()) {
    out << "  " << std::left << std::setw(11) << info.name << info.summary << "\n";
    for (const vorn::OperatorParameterInfo& parameter : info.parameters) {
      out << "    " << std::setw(18) << (parameter.name + "=" + parameter.defaultValue)
          << parameter.help << "\n";
    }
  }
}

void printHelp(std::ostream& out) {
  out << "Usage: vorn-run [-q] [-j N] [--dot FILE] PIPELINE...\n"
         "       vorn-run --help | --version\n"
         "Runs an image-processing pipeline given as text (the arguments joined with blanks).\n"
         "\n"
         "Pipeline:\n"
         "  OP key=value ... ! OP ...   the stage before feeds input 0 of the next\n"
         "  as=LABEL                    names a stage\n"
         "  inN=LABEL                   feeds input N (N >= 1) from a labelled stage\n"
         "  ;                           ends a chain; '@LABEL !' starts one from a label\n"
         "  roi=START:SIZE              requests a box region on the output, e.g. "
         "roi=10,20:64,32\n"
         "  '...' or \"...\"              keeps blanks, '!' and ';' inside a value\n"
         "\n"
         "Options:\n"
         "  -q, --quiet                 silence the library's progress lines\n"
         "  -j, --threads N             threads for the operators' pixel work (0, the default: "
         "every core)\n"
         "  --dot FILE                  write the pipeline graph (Graphviz DOT) to FILE\n"
         "  -h, --help                  this text\n"
         "  --version                   the version\n"
         "\n"
         "Operators (parameters shown with their defaults):\n";
  printOperators(out);
  out << "\n"
         "Example:\n"
         "  vorn-run \"read file=in.png as=src ! gaussian sigma=2 ! threshold lower=120 as=m ; "
         "@src ! mask in1=m ! write file=out.png\"\n"
         "\n"
         "Exit status: 0 done, 1 failure while running (no file written), 2 malformed pipeline "
         "or option.\n";
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

int complain(std::ostream& err, std::string message, int status) {
  for (char& c : message) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  err << "vorn-run: " << message << std::endl;
  return status;
}

// Operators say farewell on std::cout when destroyed: no news to the user.
struct QuietDelete {
  void operator()(vorn::TextPipeline* pipeline) const {
    NullBuffer nowhere;
    const CoutRedirect silence(&nowhere);
    delete pipeline;
  }
};

using PipelinePtr = std::unique_ptr<vorn::TextPipeline, QuietDelete>;

bool writeDot(std::ofstream& file, const vorn::TextPipeline& pipeline) {
  vorn::writeGraphviz(file, pipeline.sinks());
  file.close();
  return !file.fail();
}

std::string runCatching(vorn::TextPipeline& pipeline) {
  try {
    pipeline.run();
    return "";
  } catch (const vorn::PipelineRunError& failure) {
    return failure.what();
  } catch (const std::exception& failure) {
    return vorn::describeFailure(failure);
  } catch (...) {
    return "unknown failure";
  }
}

// Runs a pipeline that was built: "" on success, else the reason. The engine leaves its
// "Processing with operator" line open when a computation fails; it is ended here, so the
// error line starts on a line of its own.
std::string execute(vorn::TextPipeline& pipeline, bool quiet) {
  NullBuffer nowhere;
  LineTracker tracker(std::cout.rdbuf());
  std::string failure;
  {
    const CoutRedirect redirect(quiet ? static_cast<std::streambuf*>(&nowhere) : &tracker);
    failure = runCatching(pipeline);
  }
  if (!failure.empty() && tracker.lineOpen()) std::cout << std::endl;
  return failure;
}

int runPipeline(const Options& options, std::ostream& report, std::ostream& out,
                std::ostream& err) {
  PipelinePtr pipeline;
  try {
    // Building speaks only of construction details, never of the images.
    NullBuffer nowhere;
    const CoutRedirect silence(&nowhere);
    pipeline.reset(vorn::TextPipeline::build(joined(options.pipeline)).release());
  } catch (const vorn::PipelineTextError& malformed) {
    return complain(err, malformed.what(), kMalformed);
  } catch (const std::exception& failure) {
    return complain(err, vorn::describeFailure(failure), kRunFailed);
  }
  // Opened before the run, so that a graph that cannot be written stops it from starting.
  std::ofstream dot;
  const std::string cannotDraw = "cannot write the graph to '" + options.dotFile + "'";
  if (!options.dotFile.empty()) {
    dot.open(options.dotFile, std::ios::binary);
    if (!dot) return complain(err, cannotDraw, kRunFailed);
  }
  // On std::cout the stats line starts on a line of its own; quiet, the library's open line
  // is gone, so it goes to `out` through a stream of its own.
  pipeline->setReportStream(options.quiet ? &report : &out);
  std::string failure = execute(*pipeline, options.quiet);
  // Drawn after the run, also a failed one: the marks show what did not compute.
  if (dot.is_open() && !writeDot(dot, *pipeline) && failure.empty()) failure = cannotDraw;
  return failure.empty() ? kSuccess : complain(err, failure, kRunFailed);
}

}  // namespace

int runVornRun(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const auto start = std::chrono::steady_clock::now();
  // Shares out's buffer, so it still reaches `out` while std::cout is silenced.
  std::ostream report(out.rdbuf());
  Options options;
  const std::string badOption = parseOptions(args, options);
  if (!badOption.empty()) return complain(err, badOption, kMalformed);
  if (options.help) {
    printHelp(report);
    return kSuccess;
  }
  if (options.version) {
    report << "vorn-run " << kVersion << std::endl;
    return kSuccess;
  }
  const ThreadCountScope threads(options.threads);
  const int status = runPipeline(options, report, out, err);
  if (status != kSuccess) return status;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  report << "vorn-run: done in " << std::fixed << std::setprecision(3) << elapsed.count() << " s"
         << std::endl;
  return kSuccess;
}

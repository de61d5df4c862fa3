// vorn/operators/PipelineText.hpp
//
// TextPipeline: a pipeline of catalog operators built from text, the language of vorn-run.
//
//   auto pipeline = vorn::TextPipeline::build(
//       "read file=in.png as=src ! gaussian sigma=2 ! threshold lower=120 as=m ;"
//       " @src ! mask in1=m ! write file=out.png");
//   pipeline->run();
//
// The text: stages linked by `!`, each an operator's command-line name (see OperatorCatalog)
// followed by key=value words; the previous stage feeds input 0. `as=LABEL` names a stage,
// `inN=LABEL` (N >= 1) feeds input N from a labelled stage, `;` ends a chain, and a chain may
// start with `@LABEL !` to continue from a labelled stage. `roi=START:SIZE` (numbers separated
// by commas, one per axis) requests a box region on the stage's output. Words are split at
// blanks; `!` and `;` separate also when stuck to a word. Single or double quotes keep blanks,
// `!` and `;` inside a word (file="my scan.png"). Labels may be used before the stage that
// defines them; a loop through labels is refused. Labels are letters, digits, '_', '-', '.'.
//
// build() checks everything it can before anything runs and throws PipelineTextError naming
// the stage or word at fault; parameter values are checked by the operators when they run.
// run() updates every sink (a stage whose output nobody reads) in order of appearance. Writers
// commit their files only when every sink succeeded; otherwise all are discarded and run()
// throws PipelineRunError with the reason on one line.
//
// Ownership: the TextPipeline owns its operators; the pointers it hands out live as long as
// it does. Operators are named after their label, else after their command-line name, with
// "#2", "#3", ... when that name is taken.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// A text that does not describe a pipeline; found before anything runs.
class VORN_OPERATORS_API PipelineTextError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// A pipeline that failed while running; what() is the reason on one line.
class VORN_OPERATORS_API PipelineRunError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A pipeline of catalog operators built from text, as vorn-run takes it.
class VORN_OPERATORS_API TextPipeline {
 public:
  // Longer texts are refused: updates recurse once per stage upstream.
  static constexpr std::size_t kMaxStages = 1000;

  // The pipeline `text` describes; PipelineTextError when it describes none.
  static std::unique_ptr<TextPipeline> build(const std::string& text);
  // The same, but an input no stage feeds is left unconnected instead of refused: a caller
  // feeds it (a chunk of an image, a view on screen). openInputs() lists them.
  static std::unique_ptr<TextPipeline> buildOpen(const std::string& text);
  ~TextPipeline();
  TextPipeline(const TextPipeline&) = delete;
  TextPipeline& operator=(const TextPipeline&) = delete;

  // Updates the sinks, then commits every writer, or discards them all on the first failure.
  // A commit that fails (a rename refused) discards the writers not yet committed.
  void run();

  // Every stage's operator, in order of appearance.
  const std::vector<ProcessObject*>& operators() const;
  // Each stage's command-line name (its catalog entry), in the same order.
  const std::vector<std::string>& commands() const;
  // The stages whose output nobody reads, writers included, in order of appearance.
  const std::vector<ProcessObject*>& sinks() const;
  // The inputs no stage feeds, in order of appearance (stage, then input index); empty unless
  // built by buildOpen().
  const std::vector<std::pair<ProcessObject*, unsigned int>>& openInputs() const;
  // The operator of that name (a label or a generated name), or null.
  ProcessObject* find(const std::string& name) const;
  // Where the stats operators write their line; not owned; null silences them.
  void setReportStream(std::ostream* stream);

 private:
  TextPipeline() = default;
  static std::unique_ptr<TextPipeline> build(const std::string& text, bool openInputs);
  void commitWriters();
  void discardWriters();

  std::vector<boost::shared_ptr<ProcessObject>> m_owned;
  std::vector<ProcessObject*> m_operators;
  std::vector<std::string> m_commands;
  std::vector<ProcessObject*> m_sinks;
  std::vector<std::pair<ProcessObject*, unsigned int>> m_openInputs;
};

// The first meaningful lines of a failure's what() on one line: the engine's function-name
// lines and the stream library's suffix are dropped, the rest joined with ": ".
VORN_OPERATORS_API std::string describeFailure(const std::exception& failure);

}  // namespace vorn

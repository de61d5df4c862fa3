#include "vorn/operators/PipelineText.hpp"

#include <charconv>
#include <ios>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include <boost/make_shared.hpp>

#include "vorn/Box.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/Port.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/operators/ImageFileWriter.hpp"
#include "vorn/operators/LabelStatistics.hpp"
#include "vorn/operators/OperatorCatalog.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace vorn {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);
constexpr std::size_t kLongestQuote = 60;  // keeps messages readable whatever the input

[[noreturn]] void fail(const std::string& message) { throw PipelineTextError(message); }

// `text` in quotes for a message: shortened, control characters shown as '?'.
std::string quote(const std::string& text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size() && i < kLongestQuote; ++i) {
    shown += static_cast<unsigned char>(text[i]) < 0x20 ? '?' : text[i];
  }
  if (text.size() > kLongestQuote) shown += "...";
  return "'" + shown + "'";
}

// ---- words ----

enum class TokenKind { Word, Link, EndChain };

struct Token {
  TokenKind kind;
  std::string text;
  std::size_t position;  // of its first character, counted from 1
};

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool isSeparator(char c) { return c == '!' || c == ';'; }

// One word from `at` on, quotes removed; `at` ends just after it.
Token readWord(const std::string& text, std::size_t& at) {
  Token word{TokenKind::Word, "", at + 1};
  while (at < text.size() && !isBlank(text[at]) && !isSeparator(text[at])) {
    const char c = text[at];
    if (c != '"' && c != '\'') {
      word.text += c;
      ++at;
      continue;
    }
    const std::size_t close = text.find(c, at + 1);
    if (close == std::string::npos) {
      fail(std::string("unterminated ") + (c == '"' ? "double" : "single") +
           " quote at character " + std::to_string(at + 1));
    }
    word.text.append(text, at + 1, close - at - 1);
    at = close + 1;
  }
  return word;
}

std::vector<Token> tokenize(const std::string& text) {
  std::vector<Token> tokens;
  std::size_t at = 0;
  while (at < text.size()) {
    const char c = text[at];
    if (isBlank(c)) {
      ++at;
    } else if (isSeparator(c)) {
      tokens.push_back({c == '!' ? TokenKind::Link : TokenKind::EndChain, std::string(1, c), ++at});
    } else {
      tokens.push_back(readWord(text, at));
    }
  }
  return tokens;
}

// ---- stages ----

// The words between two separators, and the separator that ends them (null at the end).
struct Element {
  std::vector<Token> words;
  bool startsChain = true;
  const Token* end = nullptr;
};

struct Stage {
  std::size_t number = 0;  // counted from 1 in order of appearance
  std::vector<Token> words;
  bool follows = false;  // input 0 comes from the stage before in the same chain
  std::string from;      // or from this label, when the chain starts with @label
  boost::shared_ptr<ProcessObject> op;
  std::string label;
  boost::shared_ptr<BoxRoi> roi;
  std::map<unsigned int, std::string> inputLabels;
  std::vector<std::size_t> sources;  // the stage feeding each input
  std::string name;
};

std::string where(const Stage& stage) {
  return "stage " + std::to_string(stage.number) + " (" + stage.words[0].text + ")";
}

std::vector<Element> splitElements(const std::vector<Token>& tokens) {
  if (tokens.empty()) fail("empty pipeline");
  std::vector<Element> elements(1);
  for (const Token& token : tokens) {
    if (token.kind == TokenKind::Word) {
      elements.back().words.push_back(token);
      continue;
    }
    elements.back().end = &token;
    elements.emplace_back();
    elements.back().startsChain = token.kind == TokenKind::EndChain;
  }
  for (std::size_t i = 0; i < elements.size(); ++i) {
    if (!elements[i].words.empty()) continue;
    if (elements[i].end != nullptr) {
      fail("empty stage before " + quote(elements[i].end->text) + " at character " +
           std::to_string(elements[i].end->position));
    }
    fail("empty stage after " + quote(elements[i - 1].end->text) + " at the end of the text");
  }
  return elements;
}

void checkLabel(const std::string& label, const std::string& context) {
  bool valid = !label.empty();
  for (const char c : label) {
    valid = valid && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-' || c == '.');
  }
  if (!valid) {
    fail(context + ": bad label " + quote(label) + " (letters, digits, '_', '-' and '.' only)");
  }
}

// An element "@label" followed by '!' only at the start of a chain: the label to continue from.
std::string continuation(const Element& element) {
  const Token& first = element.words[0];
  const std::string at = "at character " + std::to_string(first.position);
  if (!element.startsChain) fail(quote(first.text) + " " + at + " can only start a chain");
  if (element.words.size() > 1 || element.end == nullptr || element.end->kind != TokenKind::Link) {
    fail(quote(first.text) + " " + at + " must be followed by '!' and a stage");
  }
  const std::string label = first.text.substr(1);
  checkLabel(label, quote(first.text) + " " + at);
  return label;
}

std::vector<Stage> splitStages(const std::vector<Token>& tokens) {
  std::vector<Stage> stages;
  std::string from;
  for (const Element& element : splitElements(tokens)) {
    if (element.words[0].text.rfind('@', 0) == 0) {
      from = continuation(element);
      continue;
    }
    if (stages.size() == TextPipeline::kMaxStages) {
      fail("more than " + std::to_string(TextPipeline::kMaxStages) + " stages");
    }
    Stage stage;
    stage.number = stages.size() + 1;
    stage.words = element.words;
    stage.follows = !element.startsChain && from.empty();
    stage.from = std::move(from);
    from.clear();
    stages.push_back(std::move(stage));
  }
  return stages;
}

// ---- the words of one stage ----

std::string catalogNames() {
  std::string names;
  for (const OperatorInfo& info : operatorCatalog())
    names += (names.empty() ? "" : ", ") + info.name;
  return names;
}

unsigned int inputCount(const ProcessObject& op) {
  unsigned int count = 0;
  while (op.getInputPort(count) != nullptr) ++count;
  return count;
}

bool isInputKey(const std::string& key) {
  return key.size() > 2 && key.compare(0, 2, "in") == 0 &&
         key.find_first_not_of("0123456789", 2) == std::string::npos;
}

template <class T>
bool parseWhole(const std::string& text, T& value) {
  const char* last = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), last, value);
  return !text.empty() && result.ec == std::errc() && result.ptr == last;
}

std::vector<std::string> splitAt(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1) {
    parts.push_back(text.substr(begin, end - begin));
  }
  parts.push_back(text.substr(begin));
  return parts;
}

// "START:SIZE" into a box, or the reason it is not one.
std::string parseRoi(const std::string& text, Box& box) {
  const std::vector<std::string> halves = splitAt(text, ':');
  if (halves.size() != 2) return "expected START:SIZE";
  const std::vector<std::string> starts = splitAt(halves[0], ',');
  const std::vector<std::string> sizes = splitAt(halves[1], ',');
  if (starts.size() != sizes.size()) return "as many starts as sizes are needed";
  Box parsed(static_cast<unsigned int>(starts.size()));
  for (std::size_t axis = 0; axis < starts.size(); ++axis) {
    if (!parseWhole(starts[axis], parsed.m_start[axis]) || parsed.m_start[axis] < 0) {
      return "start " + quote(starts[axis]) + " is not a whole number >= 0";
    }
    if (!parseWhole(sizes[axis], parsed.m_size[axis]) || parsed.m_size[axis] == 0) {
      return "size " + quote(sizes[axis]) + " is not a whole number >= 1";
    }
  }
  box = parsed;
  return "";
}

void readRoi(Stage& stage, const std::string& value) {
  if (stage.op->getOutputPort(0) == nullptr) fail(where(stage) + ": roi needs an output");
  Box box;
  const std::string problem = parseRoi(value, box);
  if (!problem.empty()) {
    fail(where(stage) + ": malformed roi " + quote(value) + ": " + problem +
         " (e.g. roi=10,20:64,32)");
  }
  stage.roi = boost::make_shared<BoxRoi>();
  stage.roi->setBox(box);
}

// `key` is "in" and digits.
void readInput(Stage& stage, const std::string& key, const std::string& label) {
  const unsigned int inputs = inputCount(*stage.op);
  unsigned int index = 0;
  if (!parseWhole(key.substr(2), index) || index >= inputs) {
    fail(where(stage) + ": no input " + key.substr(2) + " (it has " + std::to_string(inputs) +
         (inputs == 1 ? " input)" : " inputs)"));
  }
  if (index == 0) {
    fail(where(stage) + ": in0 is not allowed: input 0 is fed by the stage before or by @LABEL");
  }
  checkLabel(label, where(stage));
  stage.inputLabels[index] = label;
}

void readParameter(Stage& stage, const std::string& key, const std::string& value) {
  std::string known;
  for (const Parameter* parameter : static_cast<const ProcessObject&>(*stage.op).getParameters()) {
    if (parameter == nullptr) continue;
    if (parameter->sameIDName(key)) {
      stage.op->setParameterValue(key, value);
      return;
    }
    known += (known.empty() ? "" : ", ") + parameter->getIDName();
  }
  fail(where(stage) + ": unknown parameter " + quote(key) +
       (known.empty() ? " (it takes none)" : " (it takes " + known + ")"));
}

void readWord(Stage& stage, const std::string& key, const std::string& value) {
  if (key == "as") {
    checkLabel(value, where(stage));
    stage.label = value;
  } else if (key == "roi") {
    readRoi(stage, value);
  } else if (isInputKey(key)) {
    readInput(stage, key, value);
  } else {
    readParameter(stage, key, value);
  }
}

void readStage(Stage& stage) {
  stage.op = createOperator(stage.words[0].text);
  if (!stage.op) {
    fail("stage " + std::to_string(stage.number) + ": unknown operator " +
         quote(stage.words[0].text) + " (known: " + catalogNames() + ")");
  }
  std::set<std::string> keys;
  for (std::size_t i = 1; i < stage.words.size(); ++i) {
    const Token& word = stage.words[i];
    const std::size_t equals = word.text.find('=');
    if (equals == std::string::npos || equals == 0) {
      fail(where(stage) + ": expected key=value, got " + quote(word.text) + " at character " +
           std::to_string(word.position));
    }
    const std::string key = word.text.substr(0, equals);
    if (!keys.insert(key).second) fail(where(stage) + ": " + quote(key) + " given twice");
    readWord(stage, key, word.text.substr(equals + 1));
  }
}

// ---- connections ----

class Resolver {
 public:
  Resolver(std::vector<Stage>& stages, bool openInputs)
      : m_stages(stages), m_openInputs(openInputs) {
    for (std::size_t s = 0; s < stages.size(); ++s) {
      if (stages[s].label.empty()) continue;
      const auto [entry, fresh] = m_labels.emplace(stages[s].label, s);
      if (!fresh) {
        fail("label " + quote(stages[s].label) + " defined twice: " + where(stages[entry->second]) +
             " and " + where(stages[s]));
      }
    }
  }

  void resolve(Stage& stage) {
    stage.sources.assign(inputCount(*stage.op), kNone);
    const std::size_t feeder = stage.follows        ? stage.number - 2
                               : stage.from.empty() ? kNone
                                                    : find(stage.from, stage);
    if (feeder != kNone) feedInputZero(stage, feeder);
    for (const auto& [index, label] : stage.inputLabels) stage.sources[index] = find(label, stage);
    for (std::size_t i = 0; i < stage.sources.size(); ++i) checkSource(stage, i);
  }

 private:
  std::size_t find(const std::string& label, const Stage& stage) const {
    const auto entry = m_labels.find(label);
    if (entry == m_labels.end()) fail(where(stage) + ": unknown label " + quote(label));
    return entry->second;
  }

  void feedInputZero(Stage& stage, std::size_t feeder) const {
    if (stage.sources.empty()) {
      fail(where(stage) + ": takes no input, but " +
           (stage.follows ? "follows " + where(m_stages[feeder])
                          : "the chain continues from @" + stage.from));
    }
    stage.sources[0] = feeder;
  }

  void checkSource(const Stage& stage, std::size_t input) const {
    const std::size_t source = stage.sources[input];
    if (source == kNone && m_openInputs) return;
    if (source == kNone) {
      fail(where(stage) + ": input " + std::to_string(input) + " is not fed" +
           (input == 0 ? " (start its chain with a reader or @LABEL)"
                       : " (add in" + std::to_string(input) + "=LABEL)"));
    }
    if (m_stages[source].op->getOutputPort(0) == nullptr) {
      fail(where(stage) + ": input " + std::to_string(input) + " would read " +
           where(m_stages[source]) + ", which has no output");
    }
  }

  std::vector<Stage>& m_stages;
  bool m_openInputs;
  std::map<std::string, std::size_t> m_labels;
};

std::string display(const Stage& stage) { return stage.label.empty() ? where(stage) : stage.label; }

// The loop from the stage on top of the walk back to `back`, in the direction data flows.
[[noreturn]] void failCycle(const std::vector<Stage>& stages,
                            const std::vector<std::pair<std::size_t, std::size_t>>& walk,
                            std::size_t back) {
  std::string text = display(stages[back]);
  for (std::size_t k = walk.size(); k-- > 0;) {
    text += " -> " + display(stages[walk[k].first]);
    if (walk[k].first == back) break;
  }
  fail("cycle through labels: " + text);
}

// Depth first over the sources, without recursion: texts may hold many stages.
void checkNoCycle(const std::vector<Stage>& stages) {
  enum : char { kUnseen, kOnWalk, kDone };
  std::vector<char> state(stages.size(), kUnseen);
  for (std::size_t root = 0; root < stages.size(); ++root) {
    if (state[root] != kUnseen) continue;
    std::vector<std::pair<std::size_t, std::size_t>> walk{{root, 0}};  // stage, next input
    state[root] = kOnWalk;
    while (!walk.empty()) {
      auto& [at, next] = walk.back();
      if (next == stages[at].sources.size()) {
        state[at] = kDone;
        walk.pop_back();
        continue;
      }
      const std::size_t source = stages[at].sources[next++];
      if (source == kNone) continue;
      if (state[source] == kOnWalk) failCycle(stages, walk, source);
      if (state[source] == kUnseen) {
        state[source] = kOnWalk;
        walk.emplace_back(source, 0);
      }
    }
  }
}

void nameOperators(std::vector<Stage>& stages) {
  std::set<std::string> taken;
  for (const Stage& stage : stages) taken.insert(stage.label);
  std::map<std::string, unsigned int> counts;
  for (Stage& stage : stages) {
    if (!stage.label.empty()) {
      stage.name = stage.label;
      continue;
    }
    const std::string& command = stage.words[0].text;
    unsigned int& count = counts[command];
    do {
      ++count;
      stage.name = count == 1 ? command : command + "#" + std::to_string(count);
    } while (!taken.insert(stage.name).second);
  }
}

void connect(const std::vector<Stage>& stages, const Stage& stage) {
  for (std::size_t i = 0; i < stage.sources.size(); ++i) {
    if (stage.sources[i] == kNone) continue;
    const Port* output = stages[stage.sources[i]].op->getOutputPort(0);
    const auto input = static_cast<unsigned int>(i);
    stage.op->setInputPort(input, output);
    if (!stage.op->getInputPort(input)->isConnectedTo(output)) {
      fail(where(stage) + ": input " + std::to_string(i) + " cannot read " +
           where(stages[stage.sources[i]]));
    }
  }
}

std::vector<Stage> parse(const std::string& text, bool openInputs) {
  std::vector<Stage> stages = splitStages(tokenize(text));
  for (Stage& stage : stages) readStage(stage);
  Resolver resolver(stages, openInputs);
  for (Stage& stage : stages) resolver.resolve(stage);
  checkNoCycle(stages);
  nameOperators(stages);
  return stages;
}

std::vector<bool> consumedStages(const std::vector<Stage>& stages) {
  std::vector<bool> consumed(stages.size(), false);
  for (const Stage& stage : stages) {
    for (const std::size_t source : stage.sources) {
      if (source != kNone) consumed[source] = true;
    }
  }
  return consumed;
}

// The engine's own lines name its functions ("vorn::ProcessObject::update()"), not the cause.
bool isEngineLine(const std::string& line) {
  return line.rfind("vorn::", 0) == 0 && line.find(' ') == std::string::npos;
}

std::string trimmed(const std::string& line) {
  const std::size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

// "Operator X has caught an exception" says only which operator failed: X.
std::string shortened(const std::string& line) {
  const std::string head = "Operator ";
  const std::string tail = " has caught an exception";
  if (line.size() > head.size() + tail.size() && line.rfind(head, 0) == 0 &&
      line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
    return line.substr(head.size(), line.size() - head.size() - tail.size());
  }
  return line;
}

}  // namespace

std::string describeFailure(const std::exception& failure) {
  std::string text = failure.what();
  if (dynamic_cast<const std::ios_base::failure*>(&failure) != nullptr) {
    const std::string suffix = ": " + std::make_error_code(std::io_errc::stream).message();
    if (text.size() >= suffix.size() &&
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0) {
      text.erase(text.size() - suffix.size());
    }
  }
  std::vector<std::string> parts;
  for (const std::string& raw : splitAt(text, '\n')) {
    const std::string line = shortened(trimmed(raw));
    if (line.empty() || isEngineLine(line)) continue;
    // "read" followed by "read: ..." says the operator's name once.
    if (!parts.empty() && line.rfind(parts.back() + ":", 0) == 0) parts.pop_back();
    parts.push_back(line);
  }
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : ": ") + part;
  return joined.empty() ? "unknown failure" : joined;
}

std::unique_ptr<TextPipeline> TextPipeline::build(const std::string& text) {
  return build(text, false);
}

std::unique_ptr<TextPipeline> TextPipeline::buildOpen(const std::string& text) {
  return build(text, true);
}

std::unique_ptr<TextPipeline> TextPipeline::build(const std::string& text, bool openInputs) {
  std::vector<Stage> stages = parse(text, openInputs);
  std::unique_ptr<TextPipeline> pipeline(new TextPipeline);
  const std::vector<bool> consumed = consumedStages(stages);
  for (std::size_t s = 0; s < stages.size(); ++s) {
    Stage& stage = stages[s];
    connect(stages, stage);
    for (std::size_t i = 0; i < stage.sources.size(); ++i) {
      if (stage.sources[i] == kNone) {
        pipeline->m_openInputs.emplace_back(stage.op.get(), static_cast<unsigned int>(i));
      }
    }
    stage.op->setName(stage.name);
    if (stage.roi) stage.op->setRequestedRegionOfInterest(0, stage.roi);
    if (auto* writer = dynamic_cast<ImageFileWriter*>(stage.op.get())) {
      writer->setDeferredCommit(true);
    }
    pipeline->m_owned.push_back(stage.op);
    pipeline->m_operators.push_back(stage.op.get());
    pipeline->m_commands.push_back(stage.words[0].text);
    if (stage.op->getOutputPort(0) == nullptr || !consumed[s]) {
      pipeline->m_sinks.push_back(stage.op.get());
    }
  }
  return pipeline;
}

TextPipeline::~TextPipeline() = default;

void TextPipeline::run() {
  try {
    for (ProcessObject* sink : m_sinks) sink->update();
  } catch (const std::exception& failure) {
    discardWriters();
    throw PipelineRunError(describeFailure(failure));
  } catch (...) {
    discardWriters();
    throw;
  }
  commitWriters();
}

void TextPipeline::commitWriters() {
  for (ProcessObject* op : m_operators) {
    auto* writer = dynamic_cast<ImageFileWriter*>(op);
    if (writer == nullptr) continue;
    try {
      writer->commit();
    } catch (const std::exception& failure) {
      discardWriters();
      throw PipelineRunError(describeFailure(failure));
    }
  }
}

void TextPipeline::discardWriters() {
  for (ProcessObject* op : m_operators) {
    if (auto* writer = dynamic_cast<ImageFileWriter*>(op)) writer->discard();
  }
}

const std::vector<ProcessObject*>& TextPipeline::operators() const { return m_operators; }

const std::vector<std::string>& TextPipeline::commands() const { return m_commands; }

const std::vector<ProcessObject*>& TextPipeline::sinks() const { return m_sinks; }

const std::vector<std::pair<ProcessObject*, unsigned int>>& TextPipeline::openInputs() const {
  return m_openInputs;
}

ProcessObject* TextPipeline::find(const std::string& name) const {
  for (ProcessObject* op : m_operators) {
    if (op->getName() == name) return op;
  }
  return nullptr;
}

void TextPipeline::setReportStream(std::ostream* stream) {
  for (ProcessObject* op : m_operators) {
    if (auto* stats = dynamic_cast<StatisticsOperator*>(op)) stats->setStream(stream);
    if (auto* stats = dynamic_cast<LabelStatistics*>(op)) stats->setStream(stream);
  }
}

}  // namespace vorn

// Fuzz target: arbitrary text given to vorn::TextPipeline::build. A refusal
// (PipelineTextError) is fine; a pipeline that builds is destroyed without running, since
// running would read and write the files the text names.
#include <cstddef>
#include <cstdint>
#include <string>

#include "CoutDiscard.hpp"
#include "vorn/operators/PipelineText.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The library's construction and destruction lines would cost more than the parsing.
  static CoutDiscard silence;
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    vorn::TextPipeline::build(text).reset();
  } catch (const vorn::PipelineTextError&) {
  }
  return 0;
}

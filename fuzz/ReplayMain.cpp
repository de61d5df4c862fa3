// Replays fuzz inputs without libFuzzer, so every build (gcc, sanitizers, valgrind) runs the
// corpus: each file named on the command line, and each file of each folder named there, in
// name order, goes once through LLVMFuzzerTestOneInput.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputsOf(const fs::path& argument) {
  if (!fs::is_directory(argument)) return {argument};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(argument)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)),
                                std::istreambuf_iterator<char>());
  // An empty input still needs a valid pointer, as libFuzzer gives one.
  const std::uint8_t empty = 0;
  const std::uint8_t* data =
      bytes.empty() ? &empty : reinterpret_cast<const std::uint8_t*>(bytes.data());
  LLVMFuzzerTestOneInput(data, bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const fs::path argument(argv[i]);
    // A misspelt corpus folder must not pass as an empty one.
    if (!fs::exists(argument)) {
      std::cerr << "replay: no such file or folder: " << argument << '\n';
      return 2;
    }
    for (const fs::path& file : inputsOf(argument)) {
      replay(file);
      ++count;
    }
  }
  std::cerr << "replay: " << count << " inputs ran without a crash\n";
  return count == 0 ? 2 : 0;
}

// Feeds saved fuzz inputs to a fuzz target without libFuzzer, so that the
// corpora run as ordinary tests with any compiler.
// Usage: fuzz_replay_TARGET FILE_OR_DIRECTORY...
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

namespace {

// The files named, with directories replaced by their regular files in name
// order; empty (after a message) when an argument cannot be read.
bool collectInputs(int argc, char** argv, std::vector<fs::path>& inputs) {
  for (int i = 1; i < argc; ++i) {
    const fs::path argument = argv[i];
    std::error_code error;
    if (!fs::is_directory(argument, error)) {
      inputs.push_back(argument);
      continue;
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(argument, error)) {
      if (entry.is_regular_file(error)) files.push_back(entry.path());
    }
    if (error) {
      fprintf(stderr, "cannot read %s: %s\n", argv[i], error.message().c_str());
      return false;
    }
    std::sort(files.begin(), files.end());
    inputs.insert(inputs.end(), files.begin(), files.end());
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> inputs;
  if (!collectInputs(argc, argv, inputs)) return 1;
  if (inputs.empty()) {
    fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no input found)\n", argv[0]);
    return 1;
  }
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    if (!in) {
      fprintf(stderr, "cannot read %s\n", input.c_str());
      return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // Named first, so that an input that aborts the target is known.
    printf("%s (%zu bytes)\n", input.c_str(), bytes.size());
    fflush(stdout);
    // Like libFuzzer, never hand over a null pointer, even for an empty input.
    static const uint8_t kNothing = 0;
    const uint8_t* data =
        bytes.empty() ? &kNothing : reinterpret_cast<const uint8_t*>(bytes.data());
    LLVMFuzzerTestOneInput(data, bytes.size());
  }
  printf("%zu inputs replayed\n", inputs.size());
  return 0;
}

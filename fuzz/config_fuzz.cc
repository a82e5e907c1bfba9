// Both configuration readers over an arbitrary file: neither throws, and what
// each returns keeps the shape its rules promise (blanks removed where they
// remove them, nothing from outside a line, nothing without its marker).
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/config.h"
#include "fuzz/fuzz_check.h"

using zorv_fuzz::printable;

namespace {

// One scratch file for the whole run, removed at exit.
class ScratchFile {
 public:
  ScratchFile() {
    const char* tmp = getenv("TMPDIR");
    std::string dir = (tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    dir_ = dir + "/zorv-config-fuzz-XXXXXX";
    if (mkdtemp(&dir_[0]) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    path_ = dir_ + "/input.conf";
  }
  ~ScratchFile() {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const std::string& write(const uint8_t* data, size_t size) {
    FILE* file = fopen(path_.c_str(), "wb");
    if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0) {
      perror(path_.c_str());
      abort();
    }
    return path_;
  }

 private:
  std::string dir_;
  std::string path_;
};

bool hasOuterBlank(const std::string& text) {
  const char* blanks = " \t\r\n";
  return !text.empty() && (std::string(blanks).find(text.front()) != std::string::npos ||
                           std::string(blanks).find(text.back()) != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ScratchFile scratch;
  const std::string& path = scratch.write(data, size);
  const std::string content(reinterpret_cast<const char*>(data), size);
  const std::string shown = printable(content);

  std::unordered_map<std::string, std::unordered_map<std::string, std::string>> sections;
  FUZZ_NO_THROW(sections = parseConfig(path), shown);
  // A section needs a header line, and a header needs its '['.
  if (content.find('[') == std::string::npos) FUZZ_CHECK(sections.empty(), shown);
  for (const auto& [name, pairs] : sections) {
    FUZZ_CHECK(name.find('\n') == std::string::npos, shown);
    // Pairs outside a named section are dropped.
    if (name.empty()) FUZZ_CHECK(pairs.empty(), shown);
    for (const auto& [key, value] : pairs) {
      FUZZ_CHECK(!hasOuterBlank(key) && !hasOuterBlank(value),
                 printable(key) + "=" + printable(value) + " in " + shown);
      FUZZ_CHECK(key.find('=') == std::string::npos, printable(key) + " in " + shown);
      FUZZ_CHECK(key.find('\n') == std::string::npos && value.find('\n') == std::string::npos,
                 shown);
    }
  }

  std::map<std::string, std::string> flat;
  FUZZ_NO_THROW(flat = readConfig(path), shown);
  if (content.find('=') == std::string::npos) FUZZ_CHECK(flat.empty(), shown);
  for (const auto& [key, value] : flat) {
    FUZZ_CHECK(key.find('\n') == std::string::npos, printable(key) + " in " + shown);
    FUZZ_CHECK(value.find_first_of(" \r\n") == std::string::npos,
               printable(key) + "=" + printable(value) + " in " + shown);
  }
  return 0;
}

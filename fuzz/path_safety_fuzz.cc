// The path gate over arbitrary paths and flags: it never throws, and it never
// lets through a path that could smuggle a command, a parent step, a control
// byte or an ill-formed byte into whatever uses it next.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "common/path_safety.h"
#include "common/wildcard.h"
#include "fuzz/fuzz_check.h"

using zorv_fuzz::printable;

namespace {

const char kShellMetacharacters[] = "|&;$<>`!(){}'\"";

// Bytes that no well-formed UTF-8 text holds, neither as lead nor as
// continuation byte.
bool neverInUtf8(unsigned char c) { return c == 0xc0 || c == 0xc1 || c >= 0xf5; }

void checkAccepted(const std::string& path, bool permitWildcard) {
  const std::string shown = printable(path);
  FUZZ_CHECK(!path.empty() && path[0] == '/', shown);
  FUZZ_CHECK(path.size() < 4096, std::to_string(path.size()));
  for (unsigned char c : path) {
    FUZZ_CHECK(c != '\0', shown);
    FUZZ_CHECK(c >= 0x20 || c == '\t', shown);
    FUZZ_CHECK(c != 0x7f, shown);
    FUZZ_CHECK(c == '\0' || strchr(kShellMetacharacters, c) == nullptr, shown);
    FUZZ_CHECK(c != '\\', shown);
    FUZZ_CHECK(!neverInUtf8(c), shown);
  }
  FUZZ_CHECK(path.find("//") == std::string::npos, shown);
  FUZZ_CHECK(path.find("/..") == std::string::npos, shown);
  FUZZ_CHECK(path.find("../") == std::string::npos, shown);
  // Nothing directly under the root may be hidden or a dot entry.
  FUZZ_CHECK(path.size() == 1 || path[1] != '.', shown);
  if (!permitWildcard) FUZZ_CHECK(!containsWildcard(path), shown);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool permitSymlink = data[0] & 1;
  const bool permitWildcard = data[0] & 2;
  const bool permitMissing = data[0] & 4;
  const std::string path(reinterpret_cast<const char*>(data) + 1, size - 1);

  bool accepted = false;
  FUZZ_NO_THROW(accepted = isFilePathSafe(path, permitSymlink, permitWildcard, permitMissing),
                printable(path));
  if (accepted) checkAccepted(path, permitWildcard);
  return 0;
}

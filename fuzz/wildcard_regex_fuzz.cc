// The pattern-to-regex translation and the pattern safety limits over
// arbitrary patterns: neither throws, the translation stays within twice the
// pattern's length and agrees with the in-memory matcher, and no pattern that
// could walk up, loop or fan out past the limits is called safe.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>

#include "common/wildcard.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/split_input.h"

using zorv_fuzz::printable;

namespace {

bool onlyOf(const std::string& text, const char* alphabet) {
  return text.find_first_not_of(alphabet) == std::string::npos;
}

void checkRegex(const std::string& pattern) {
  std::string regex;
  FUZZ_NO_THROW(regex = wildcardsToRegex(pattern), printable(pattern));
  // Only '*' and an escaped character grow, each to two bytes.
  FUZZ_CHECK(regex.size() <= 2 * pattern.size(), printable(pattern) + " -> " + printable(regex));
  // Names and directories without special characters come through unchanged.
  if (onlyOf(pattern, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-"))
    FUZZ_CHECK(regex == pattern, printable(pattern) + " -> " + printable(regex));
}

void checkSafety(const std::string& pattern) {
  bool safe = false;
  FUZZ_NO_THROW(safe = isPatternSafe(pattern), printable(pattern));
  if (!safe) return;
  const std::string shown = printable(pattern);
  FUZZ_CHECK(!pattern.empty() && pattern.size() <= 1024, std::to_string(pattern.size()));
  const auto wildcards = std::count_if(pattern.begin(), pattern.end(),
                                       [](char c) { return c == '*' || c == '?' || c == '['; });
  FUZZ_CHECK(wildcards <= 50, shown);
  FUZZ_CHECK(std::count(pattern.begin(), pattern.end(), '/') <= 20, shown);
  FUZZ_CHECK(pattern.find("..") == std::string::npos, shown);
  FUZZ_CHECK(pattern.find("/./") == std::string::npos, shown);
  FUZZ_CHECK(pattern.find("//") == std::string::npos, shown);
}

// On patterns of letters, slashes, dots, '*' and '?' the regular expression
// and the matcher must agree on every text of letters, slashes and dots. Kept
// small: the standard library's regex engine backtracks.
void checkAgreement(const std::string& pattern, const std::string& text) {
  if (pattern.size() > 12 || text.size() > 16) return;
  if (!onlyOf(pattern, "ab/.*?") || !onlyOf(text, "ab/.")) return;
  if (std::count(pattern.begin(), pattern.end(), '*') > 3) return;
  const std::regex regex(wildcardsToRegex(pattern));
  const bool byRegex = std::regex_match(text, regex);
  FUZZ_CHECK(byRegex == wildcardMatch(pattern, text),
             pattern + " / " + text + " via " + wildcardsToRegex(pattern));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto [pattern, text] = zorv_fuzz::splitInput(data, size);
  const std::string whole(reinterpret_cast<const char*>(data), size);
  for (const std::string* each : {&pattern, &text, &whole}) {
    checkRegex(*each);
    checkSafety(*each);
  }
  checkAgreement(pattern, text);
  return 0;
}

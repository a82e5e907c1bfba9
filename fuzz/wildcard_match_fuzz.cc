// The in-memory wildcard matcher over arbitrary patterns and texts: it never
// throws, costs at most time proportional to the product of the two lengths,
// and keeps the matches every caller relies on.
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/wildcard.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/split_input.h"

using zorv_fuzz::printable;

namespace {

// CPU time of this thread, so that a busy machine does not fail the bound.
double threadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

// Generous enough for instrumented builds; a backtracking matcher exceeds it
// by orders of magnitude on inputs of a few dozen stars.
constexpr double kSecondsPerStep = 1e-6;
constexpr double kSecondsSlack = 0.05;

bool match(const std::string& pattern, const std::string& text) {
  bool matched = false;
  FUZZ_NO_THROW(matched = wildcardMatch(pattern, text),
                printable(pattern) + " / " + printable(text));
  return matched;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto [pattern, text] = zorv_fuzz::splitInput(data, size);
  const std::string shown = printable(pattern) + " / " + printable(text);

  const double start = threadSeconds();
  const bool matched = match(pattern, text);
  const double spent = threadSeconds() - start;
  const double allowed =
      kSecondsSlack + kSecondsPerStep * (pattern.size() + 1.0) * (text.size() + 1.0);
  FUZZ_CHECK(spent <= allowed, std::to_string(spent) + " s for " + shown);

  bool again = false;
  FUZZ_NO_THROW(again = matchesPattern(pattern, text), shown);
  FUZZ_CHECK(again == matched, shown);

  // Stars alone match any text, except one that begins with as many stars and
  // goes on: equality is tried first, so those stars are spent as literals
  // and nothing is left to cover the rest.
  const size_t stars = 1 + (size > 0 ? data[0] % 4 : 0);
  const std::string starPattern(stars, '*');
  const bool spentAsLiterals = text.size() > stars && text.compare(0, stars, starPattern) == 0;
  FUZZ_CHECK(match(starPattern, text) == !spentAsLiterals, printable(text));
  // The empty pattern matches only the empty text.
  FUZZ_CHECK(match("", text) == text.empty(), printable(text));
  // Every text matches itself (byte equality is tried first, stars included)
  // and as many '?' as it has bytes.
  FUZZ_CHECK(match(text, text), printable(text));
  FUZZ_CHECK(match(std::string(text.size(), '?'), text), printable(text));
  return 0;
}

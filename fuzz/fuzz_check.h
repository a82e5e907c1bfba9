// Invariant checks for the fuzz targets. A broken invariant prints what broke
// and aborts, so that libFuzzer keeps the input as a crash and the corpus
// replay test fails on it.
#ifndef ZORV_FUZZ_FUZZ_CHECK_H_
#define ZORV_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace zorv_fuzz {

/// `text` with every byte outside printable ASCII written as \xNN.
inline std::string printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      out += escaped;
    }
  }
  return out;
}

[[noreturn]] inline void fail(const char* file, int line, const char* what,
                              const std::string& detail) {
  fprintf(stderr, "%s:%d: invariant broken: %s\n  %s\n", file, line, what, detail.c_str());
  fflush(stderr);
  abort();
}

}  // namespace zorv_fuzz

/// Aborts with `detail` (a std::string) when `condition` is false.
#define FUZZ_CHECK(condition, detail) \
  ((condition) ? (void)0 : ::zorv_fuzz::fail(__FILE__, __LINE__, #condition, (detail)))

/// Runs `statement`; any exception escaping it is a broken invariant.
#define FUZZ_NO_THROW(statement, detail)                            \
  do {                                                              \
    try {                                                           \
      statement;                                                    \
    } catch (const std::exception& e) {                             \
      ::zorv_fuzz::fail(__FILE__, __LINE__, "threw " #statement,    \
                        std::string(e.what()) + " on " + (detail)); \
    } catch (...) {                                                 \
      ::zorv_fuzz::fail(__FILE__, __LINE__, "threw " #statement,    \
                        "a non-standard exception on " + (detail)); \
    }                                                               \
  } while (0)

#endif  // ZORV_FUZZ_FUZZ_CHECK_H_

// Internal to the framework's libraries (not installed): where the programs
// find their files, overridable through the environment so that tests and
// benchmarks can point them at a scratch tree.
#ifndef ZORV_COMMON_ENV_PATH_H_
#define ZORV_COMMON_ENV_PATH_H_

#include <cstdlib>
#include <string>

namespace zorv {

/// The value of the environment variable `name` when it is set and not
/// empty, else `fallback`.
inline std::string envPathOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

}  // namespace zorv

#endif  // ZORV_COMMON_ENV_PATH_H_

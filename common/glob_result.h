// Internal to the framework's libraries (not installed): the one owner of a
// glob() result.
#ifndef ZORV_COMMON_GLOB_RESULT_H_
#define ZORV_COMMON_GLOB_RESULT_H_

#include <glob.h>

#include <cerrno>
#include <cstddef>

namespace zorv {

/// Expands a pattern with glob() and frees the result on every way out of
/// its scope, failures included. Not copyable.
class GlobResult {
 public:
  /// Runs glob(pattern, flags). status() is glob's return code and error()
  /// the errno it left (read before anything else can change it).
  GlobResult(const char* pattern, int flags)
      : status_(::glob(pattern, flags, nullptr, &result_)), error_(errno) {}
  ~GlobResult() { ::globfree(&result_); }
  GlobResult(const GlobResult&) = delete;
  GlobResult& operator=(const GlobResult&) = delete;

  int status() const { return status_; }
  int error() const { return error_; }
  /// The paths found; none when glob() failed.
  size_t size() const { return result_.gl_pathc; }
  const char* operator[](size_t i) const { return result_.gl_pathv[i]; }

 private:
  glob_t result_{};  // before status_: glob() fills it in status_'s initialiser
  int status_;
  int error_;
};

}  // namespace zorv

#endif  // ZORV_COMMON_GLOB_RESULT_H_

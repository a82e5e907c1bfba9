#include "labelmgr/path_gate.h"

#include <fnmatch.h>
#include <glob.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>

#include "common/path_resolve.h"
#include "common/path_safety.h"
#include "common/wildcard.h"
#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

constexpr size_t kMaxPathLength = 4095;  // what a UserSetRecord can carry
const char* const kWildcards = "*?[";

// A glob() result, released on every path out.
class GlobResult {
 public:
  GlobResult() { std::memset(&glob_, 0, sizeof(glob_)); }
  ~GlobResult() { globfree(&glob_); }
  GlobResult(const GlobResult&) = delete;
  GlobResult& operator=(const GlobResult&) = delete;

  int run(const std::string& pattern) { return glob(pattern.c_str(), 0, nullptr, &glob_); }
  size_t size() const { return glob_.gl_pathc; }
  const char* operator[](size_t i) const { return glob_.gl_pathv[i]; }

 private:
  glob_t glob_;
};

std::string canonicalOrEmpty(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return "";
  return resolved;
}

}  // namespace

std::string admitExactPath(const char* path) {
  if (path == nullptr) {
    ZLOG_ERROR("no path given");
    return "";
  }
  return admitExactPath(std::string(path));
}

std::string admitExactPath(const std::string& path) {
  if (!isFilePathSafe(path, true, false, false)) return "";
  std::string canonical = getRealPath(path);
  if (canonical.empty()) return "";  // getRealPath has said why
  if (canonical.size() > kMaxPathLength) {
    ZLOG_ERROR("canonical path too long (length=%zu): %s", canonical.size(), path.c_str());
    return "";
  }
  return canonical;
}

std::string admitPattern(const char* pattern) {
  if (pattern == nullptr) {
    ZLOG_ERROR("no pattern given");
    return "";
  }
  return admitPattern(std::string(pattern));
}

std::string admitPattern(const std::string& pattern) {
  if (!isFilePathSafe(pattern, true, true, true)) return "";
  if (!isPatternSafe(pattern)) {
    ZLOG_ERROR("pattern refused as too costly to expand: %s", pattern.c_str());
    return "";
  }
  // Covered paths are canonical and never end in '/', so neither may the
  // pattern; and the fixed directory part is resolved once here. A pattern
  // without a wildcard keeps its last name as written, like any other
  // pattern component.
  std::string trimmed = pattern;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t wildcard = trimmed.find_first_of(kWildcards);
  size_t slash = trimmed.rfind('/', wildcard);
  std::string dir = trimmed.substr(0, slash);
  std::string rest = trimmed.substr(slash);  // starts with '/'
  std::string result = trimmed;
  if (!dir.empty()) {
    std::string real = canonicalOrEmpty(dir);
    if (!real.empty()) result = (real == "/" ? "" : real) + rest;
  }
  if (result.size() > kMaxPathLength) {
    ZLOG_ERROR("pattern too long once resolved (length=%zu): %s", result.size(), pattern.c_str());
    return "";
  }
  return result;
}

bool patternCovers(const std::string& pattern, const std::string& path) {
  return fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0;
}

std::string literalPrefix(const std::string& pattern) {
  return pattern.substr(0, pattern.find_first_of(kWildcards));
}

std::vector<std::string> filesCoveredBy(const std::string& pattern) {
  std::vector<std::string> files;
  GlobResult matches;
  int rc = matches.run(pattern);
  if (rc == GLOB_NOMATCH) return files;
  if (rc != 0) {
    ZLOG_ERROR("cannot expand pattern %s (glob error %d)", pattern.c_str(), rc);
    return files;
  }
  for (size_t i = 0; i < matches.size(); ++i) {
    std::string canonical = canonicalOrEmpty(matches[i]);
    if (!canonical.empty() && patternCovers(pattern, canonical)) files.push_back(canonical);
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

}  // namespace zorv::labelmgr

#include "labelmgr/path_gate.h"

#include <fcntl.h>
#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/dir_stream.h"
#include "common/path_safety.h"
#include "common/pinned_walker.h"
#include "common/wildcard.h"
#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

constexpr size_t kMaxPathLength = 4095;  // what a UserSetRecord can carry
const char* const kWildcards = "*?[";

bool isLiteral(const std::string& component) {
  return component.find_first_of("*?[\\") == std::string::npos;
}

// Walks the components of a pattern below a pinned directory.
class CoverageWalk {
 public:
  CoverageWalk(std::vector<std::string> components,
               const std::function<void(const CoveredEntry&)>& each)
      : components_(std::move(components)), each_(each) {}

  void walk(UniqueFd dir, const std::string& dirPath, size_t index) {
    const std::string& component = components_[index];
    bool last = index + 1 == components_.size();
    if (isLiteral(component)) {
      visit(dir.get(), dirPath, component.c_str(), last, index);
      return;
    }
    // Names are gathered first so that they are visited in order and so
    // that nothing done to the directory meanwhile changes the listing.
    DirStream stream(std::move(dir));
    std::vector<std::string> names;
    DirStream::Entry entry;
    while (stream.next(&entry)) {
      if (fnmatch(component.c_str(), entry.name, FNM_PERIOD) == 0) names.push_back(entry.name);
    }
    if (stream.error() != 0) {
      ZLOG_ERROR("cannot read directory %s: %s", dirPath.c_str(), std::strerror(stream.error()));
      complete_ = false;
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) visit(stream.fd(), dirPath, name.c_str(), last, index);
  }

  bool complete() const { return complete_; }

 private:
  void visit(int dirfd, const std::string& dirPath, const char* name, bool last, size_t index) {
    struct stat st;
    std::string path = joinPath(dirPath, name);
    if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) return;  // not there (any more): covers nothing
      ZLOG_ERROR("cannot stat %s: %s", path.c_str(), std::strerror(errno));
      complete_ = false;
      return;
    }
    if (S_ISLNK(st.st_mode)) return;
    if (last) {
      each_(CoveredEntry{dirfd, name, path, st});
      return;
    }
    if (!S_ISDIR(st.st_mode)) return;
    UniqueFd child;
    int rc = openSubdirectory(dirfd, name, DirId{st.st_dev, st.st_ino}, &child);
    if (rc != 0) {
      int cause = -rc;
      if (cause == ENOENT) return;
      ZLOG_ERROR("cannot open directory %s: %s", path.c_str(),
                 cause == ESTALE || cause == ELOOP || cause == ENOTDIR
                     ? "it was replaced during the walk"
                     : std::strerror(cause));
      complete_ = false;
      return;
    }
    walk(std::move(child), path, index + 1);
  }

  std::vector<std::string> components_;
  const std::function<void(const CoveredEntry&)>& each_;
  bool complete_ = true;
};

std::vector<std::string> splitComponents(const std::string& text) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (begin <= text.size()) {
    size_t end = text.find('/', begin);
    if (end == std::string::npos) end = text.size();
    if (end > begin) parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

}  // namespace

bool admitExactPath(const char* path, PinnedEntry* entry) {
  if (path == nullptr) {
    ZLOG_ERROR("no path given");
    return false;
  }
  if (!isFilePathSafe(path, true, false, false)) return false;
  std::string error;
  if (resolvePinned(path, LinkRule::kSafe, true, entry, &error) != 0) {
    ZLOG_ERROR("%s", error.c_str());
    return false;
  }
  if (entry->path.size() > kMaxPathLength) {
    ZLOG_ERROR("canonical path too long (length=%zu): %s", entry->path.size(), path);
    return false;
  }
  return true;
}

int pinStoredTarget(const std::string& canonicalPath, PinnedEntry* entry) {
  std::string error;
  int rc = resolvePinned(canonicalPath, LinkRule::kNever, false, entry, &error);
  if (rc == 0 && S_ISLNK(entry->st.st_mode)) rc = -ENOLINK;
  if (rc == -ENOENT || rc == -ENOTDIR || rc == -ENOLINK) {
    ZLOG_DEBUG("%s is gone or has become a symbolic link: passed over", canonicalPath.c_str());
    return -ENOENT;
  }
  if (rc != 0) ZLOG_ERROR("%s", error.c_str());
  return rc;
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
    PinnedEntry entry;
    std::string error;
    int rc = resolvePinned(dir, LinkRule::kSafe, true, &entry, &error);
    if (rc == -ENOLINK || rc == -ELOOP) {
      ZLOG_ERROR("%s", error.c_str());
      return "";
    }
    // A directory that is not there (yet) keeps the pattern as written: it
    // covers nothing now and governs what appears there later.
    if (rc == 0) result = (entry.path == "/" ? "" : entry.path) + rest;
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

bool forEachCovered(const std::string& pattern,
                    const std::function<void(const CoveredEntry&)>& each) {
  if (pattern.empty() || pattern[0] != '/') return true;  // covers nothing
  // The fixed directory: every component before the first one that is not
  // plain text.
  std::vector<std::string> components = splitComponents(pattern);
  size_t fixed = 0;
  while (fixed + 1 < components.size() && isLiteral(components[fixed])) ++fixed;
  std::string dirPath = "/";
  for (size_t i = 0; i < fixed; ++i) dirPath = joinPath(dirPath, components[i].c_str());
  components.erase(components.begin(), components.begin() + static_cast<std::ptrdiff_t>(fixed));
  if (components.empty()) return true;

  PinnedEntry dirEntry;
  int rc = pinStoredTarget(dirPath, &dirEntry);
  if (rc == -ENOENT) return true;
  if (rc != 0) return false;
  UniqueFd dir;
  rc = openPinnedDirectory(dirEntry, &dir);
  if (rc == -ENOENT || rc == -ENOTDIR) return true;
  if (rc != 0) {
    ZLOG_ERROR("cannot open directory %s: %s", dirPath.c_str(),
               rc == -ESTALE ? "it was replaced meanwhile" : std::strerror(-rc));
    return false;
  }
  CoverageWalk walk(std::move(components), each);
  walk.walk(std::move(dir), dirPath, 0);
  return walk.complete();
}

std::vector<std::string> filesCoveredBy(const std::string& pattern) {
  std::vector<std::string> files;
  forEachCovered(pattern, [&](const CoveredEntry& entry) { files.push_back(entry.path); });
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace zorv::labelmgr

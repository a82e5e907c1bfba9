#include "common/path_resolve.h"

#include <fnmatch.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

#include "log/logger.h"

namespace fs = std::filesystem;

namespace {

bool isPresent(const fs::file_status& st) {
  return st.type() != fs::file_type::not_found && st.type() != fs::file_type::none;
}

// The absolute text of `p` without resolving anything; false only when there
// is nothing to make absolute (an empty path) or the working directory is gone.
bool absoluteText(const fs::path& p, std::string& text) {
  std::error_code ec;
  fs::path abs = fs::absolute(p, ec);
  if (ec) return false;
  text = abs.string();
  return true;
}

}  // namespace

std::string getRealPath(const std::string& path) {
  if (path.empty()) {
    ZLOG_WARN("path is empty");
    return "";
  }
  try {
    if (!isPresent(fs::status(path))) {
      ZLOG_WARN("file is not exists, %s", path.c_str());
      return "";
    }
    return fs::canonical(path).string();
  } catch (const fs::filesystem_error& e) {
    ZLOG_ERROR("Resolve realpath failed for %s: %s", path.c_str(), e.what());
  } catch (const std::exception& e) {
    ZLOG_ERROR("Unexpected error in getRealPath: %s", e.what());
  }
  return "";
}

std::string getLinkRealPath(const std::string& path) {
  if (path.empty()) return "";
  try {
    const fs::path p(path);
    const std::string parent = getRealPath(p.parent_path().string());
    if (parent.empty()) return "";
    return (fs::path(parent) / p.filename()).lexically_normal().string();
  } catch (const std::exception& e) {
    ZLOG_DEBUG("error: %s", e.what());
  }
  return "";
}

std::string findFirstValidParentDir(const std::string& pattern) {
  if (pattern.empty()) return "";
  std::string prefix = pattern.substr(0, pattern.find_first_of("*?"));
  // "/etc/" names the same directory as "/etc"; answer it without the slash.
  while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
  fs::path candidate(prefix);
  try {
    while (!candidate.empty()) {
      const fs::file_status st = fs::status(candidate);
      if (isPresent(st) && fs::is_directory(st)) return candidate.string();
      fs::path parent = candidate.parent_path();
      if (parent == candidate) break;  // a root that is not a directory: stop, do not spin
      candidate = std::move(parent);
    }
  } catch (const fs::filesystem_error& e) {
    ZLOG_ERROR("filesystem error: %s", e.what());
  }
  return "";
}

std::vector<fs::path> expandPath(const fs::path& path) {
  std::vector<fs::path> matches;
  const std::string pattern = path.filename().string();
  for (const fs::directory_entry& entry : fs::directory_iterator(path.parent_path())) {
    const fs::path& full = entry.path();
    // Hidden entries are matched like any other: the caller asked for them by pattern.
    if (fnmatch(pattern.c_str(), full.filename().c_str(), FNM_NOESCAPE) == 0)
      matches.push_back(full);
  }
  return matches;
}

bool isParentPath(const std::string& parent, const std::string& child) {
  std::string p;
  std::string c;
  if (!absoluteText(parent, p) || !absoluteText(child, c)) return false;
  if (!p.empty() && p.back() != '/') p += '/';
  return c.size() >= p.size() && c.compare(0, p.size(), p) == 0;
}

std::string formatPath(const std::string& path) {
  if (path.empty()) return "";
  size_t end = path.size();
  if (end > 1 && path[end - 1] == '*' && path[end - 2] == '/') --end;
  std::string tidy;
  tidy.reserve(end);
  for (size_t i = 0; i < end; ++i) {
    if (path[i] == '/' && !tidy.empty() && tidy.back() == '/') continue;
    tidy += path[i];
  }
  if (tidy.size() > 1 && tidy.back() == '/') tidy.pop_back();
  return tidy;
}

bool comparePaths(const fs::path& a, const fs::path& b) {
  // A path that cannot be made absolute is compared as written, which keeps
  // the order strict for sorting.
  std::string x;
  std::string y;
  if (!absoluteText(a, x)) x = a.string();
  if (!absoluteText(b, y)) y = b.string();
  const size_t common = std::min(x.size(), y.size());
  for (size_t i = 0; i < common; ++i) {
    // Signed on purpose: bytes of 0x80 and above (UTF-8 names) order before
    // every ASCII byte, and sorted lists keep that established order.
    const signed char l = static_cast<signed char>(x[i]);
    const signed char r = static_cast<signed char>(y[i]);
    if (l != r) return l < r;
  }
  return x.size() < y.size();
}

bool isFilesystemReadOnly(const char* path) {
  struct statvfs info {};
  if (path == nullptr) {
    ZLOG_ERROR("statfs error, %s, %s", strerror(EFAULT), "(null)");
    return false;
  }
  if (statvfs(path, &info) != 0) {
    // Saved first: the logger's first use may change errno before the
    // arguments are read.
    const int error = errno;
    ZLOG_ERROR("statfs error, %s, %s", strerror(error), path);
    return false;
  }
  return (info.f_flag & ST_RDONLY) != 0;
}

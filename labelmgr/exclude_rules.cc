#include "labelmgr/exclude_rules.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/dir_stream.h"
#include "common/env_path.h"
#include "common/unique_fd.h"
#include "common/whole_file.h"
#include "common/wildcard.h"
#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

// Why `glob` can never match a canonical path, or "" when it can.
std::string flaw(const std::string& glob) {
  if (glob.empty() || glob[0] != '/') return "not an absolute path";
  for (size_t begin = 1; begin <= glob.size();) {
    size_t end = std::min(glob.find('/', begin), glob.size());
    std::string part = glob.substr(begin, end - begin);
    if (glob.size() > 1 && (part.empty() || part == "." || part == ".."))
      return "an empty, \".\" or \"..\" component";
    begin = end + 1;
  }
  for (size_t open = glob.find('['); open != std::string::npos; open = glob.find('[', open + 1)) {
    // As fnmatch reads a set: a ']' right after "[" or "[!" is a member.
    size_t first = open + 1;
    if (first < glob.size() && (glob[first] == '!' || glob[first] == '^')) ++first;
    size_t close = glob.find(']', first + 1);
    if (close == std::string::npos) return "a \"[\" set that is never closed";
    open = close;
  }
  return "";
}

std::string tidy(std::string line) {
  const char* const kBlanks = " \t\r";
  size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  line = line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
  while (line.size() > 1 && line.back() == '/') line.pop_back();
  return line;
}

}  // namespace

std::string excludeDirectory() { return envPathOr("ZORV_LABELMGR_EXCLUDE_DIR", kExcludeDirectory); }

bool ExcludeRules::add(const std::string& glob, std::string* reason) {
  std::string tidied = tidy(glob);
  *reason = flaw(tidied);
  if (!reason->empty()) return false;
  size_t wild = tidied.find_first_of("*?[");
  prefixes_.push_back(tidied.substr(0, wild));
  globs_.push_back(std::move(tidied));
  return true;
}

bool ExcludeRules::load(const std::string& dir, std::vector<std::string>* problems) {
  std::vector<std::string> names;
  {
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
      if (errno == ENOENT) return true;
      ZLOG_ERROR("cannot read the exclude rules in %s: %s", dir.c_str(), std::strerror(errno));
      return false;
    }
    DirStream stream(std::move(fd));
    DirStream::Entry entry;
    while (stream.next(&entry)) {
      if (entry.name[0] != '.') names.push_back(entry.name);
    }
    if (stream.error() != 0) {
      ZLOG_ERROR("cannot read the exclude rules in %s: %s", dir.c_str(),
                 std::strerror(stream.error()));
      return false;
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = dir + "/" + name;
    std::string content;
    if (!readWholeFile(path.c_str(), &content, false)) {
      ZLOG_ERROR("cannot read the exclude rules in %s: %s", path.c_str(), std::strerror(errno));
      return false;
    }
    std::string reason;
    int number = 0;
    for (size_t begin = 0; begin < content.size();) {
      size_t end = std::min(content.find('\n', begin), content.size());
      std::string tidied = tidy(content.substr(begin, end - begin));
      begin = end + 1;
      ++number;
      if (tidied.empty() || tidied[0] == '#' || add(tidied, &reason)) continue;
      std::string problem = path + ":" + std::to_string(number) + ": " + reason;
      ZLOG_ERROR("malformed exclude rule ignored: %s", problem.c_str());
      if (problems != nullptr) problems->push_back(problem);
    }
  }
  return true;
}

const std::string* ExcludeRules::matching(const std::string& canonicalPath) const {
  for (size_t i = 0; i < globs_.size(); ++i) {
    if (canonicalPath.compare(0, prefixes_[i].size(), prefixes_[i]) == 0 &&
        matchesPattern1(canonicalPath, globs_[i]))
      return &globs_[i];
  }
  return nullptr;
}

const std::string* ExcludeRules::covering(const std::string& canonicalPath) const {
  std::string path = canonicalPath;
  for (;;) {
    if (const std::string* glob = matching(path)) return glob;
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || path == "/") return nullptr;
    path = slash == 0 ? "/" : path.substr(0, slash);
  }
}

}  // namespace zorv::labelmgr

#include "common/wildcard.h"

#include <fnmatch.h>

#include <cerrno>
#include <cstring>

#include "common/glob_result.h"
#include "log/logger.h"

namespace {

constexpr size_t kMaxPatternBytes = 1024;
constexpr size_t kMaxWildcards = 50;
constexpr size_t kMaxSlashes = 20;

bool isWildcardChar(char c) { return c == '*' || c == '?' || c == '[' || c == ']'; }

}  // namespace

bool containsWildcard(const std::string& text) {
  bool escaped = false;
  for (char c : text) {
    if (escaped) {
      escaped = false;
      continue;
    }
    if (c == '\\') {
      escaped = true;
      continue;
    }
    if (isWildcardChar(c)) return true;
  }
  return false;
}

bool isPatternSafe(const std::string& pattern) {
  if (pattern.empty() || pattern.size() > kMaxPatternBytes) return false;
  size_t wildcards = 0;
  size_t slashes = 0;
  for (char c : pattern) {
    // ']' only closes what '[' opened, so it does not add to the expansion cost.
    if (c == '*' || c == '?' || c == '[') ++wildcards;
    if (c == '/') ++slashes;
  }
  if (wildcards > kMaxWildcards) return false;
  if (slashes > kMaxSlashes) return false;
  if (pattern.find("..") != std::string::npos) return false;
  if (pattern.find("/./") != std::string::npos) return false;
  if (pattern.find("//") != std::string::npos) return false;
  return true;
}

bool wildcardMatch(const std::string& pattern, const std::string& text) {
  const size_t plen = pattern.size();
  const size_t tlen = text.size();
  size_t p = 0;
  size_t t = 0;
  size_t star = std::string::npos;  // pattern position of the last '*' seen
  size_t starText = 0;              // text position where that '*' began to match
  while (t < tlen) {
    // Equality comes first: a '*' in the text is consumed by a '*' in the
    // pattern as a literal, and that star is not remembered for backtracking.
    if (p < plen && (pattern[p] == text[t] || pattern[p] == '?')) {
      ++p;
      ++t;
    } else if (p < plen && pattern[p] == '*') {
      star = p++;
      starText = t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++starText;
    } else {
      return false;
    }
  }
  while (p < plen && pattern[p] == '*') ++p;
  return p == plen;
}

bool matchesPattern(const std::string& pattern, const std::string& text) {
  return wildcardMatch(pattern, text);
}

bool matchesPattern1(const std::filesystem::path& path, const std::string& pattern) {
  const std::string text = path.string();
  return fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

std::vector<std::string> searchFilesByPattern(const std::string& pattern) {
  std::vector<std::string> found;
  if (!isPatternSafe(pattern)) {
    ZLOG_ERROR("Unsafe pattern detected: %s", pattern.c_str());
    return found;
  }
  // The errno of a failure is kept with the result: the logger's first use
  // may change it.
  const zorv::GlobResult result(pattern.c_str(), GLOB_TILDE | GLOB_NOSORT);
  switch (result.status()) {
    case 0:
      found.reserve(result.size());
      for (size_t i = 0; i < result.size(); ++i) found.emplace_back(result[i]);
      break;
    case GLOB_NOSPACE:
      ZLOG_ERROR("Ran out of memory.");
      break;
    case GLOB_ABORTED:
      ZLOG_ERROR("Read error. %s", strerror(result.error()));
      break;
    case GLOB_NOMATCH:
      // Kept at error level like every other glob outcome, although an empty
      // match is an ordinary result.
      ZLOG_ERROR("No matches found.");
      break;
    case GLOB_NOSYS:
      ZLOG_ERROR("Not implemented.");
      break;
    default:
      ZLOG_ERROR("unknown error");
      break;
  }
  return found;
}

std::string getParentDirWithoutWildcard(const std::string& pattern) {
  if (pattern.empty()) return "";
  const size_t wildcard = pattern.find_first_of("*?");
  if (wildcard != std::string::npos) {
    const size_t slash = wildcard == 0 ? std::string::npos : pattern.rfind('/', wildcard - 1);
    // A relative pattern has no directory of its own; "/" is answered so that
    // callers always get somewhere absolute to start from.
    if (slash == std::string::npos || slash == 0) return "/";
    return pattern.substr(0, slash);
  }
  std::string dir = pattern;
  if (dir.back() == '/') dir.pop_back();
  if (dir.empty()) return "";
  const size_t slash = dir.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  dir.resize(slash);
  return dir;
}

std::string wildcardsToRegex(const std::string& pattern) {
  std::string regex;
  regex.reserve(pattern.size() * 2);
  bool inBraces = false;  // braces do not nest: the first '}' ends the group
  const size_t n = pattern.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = pattern[i];
    switch (c) {
      case '*':
        regex += ".*";
        break;
      case '?':
        regex += '.';
        break;
      case '.':
      case '$':
      case '^':
      case '+':
      case '|':
      case '(':
      case ')':
        regex += '\\';
        regex += c;
        break;
      case '{':
        regex += '(';
        inBraces = true;
        break;
      case ',':
        regex += inBraces ? '|' : ',';
        break;
      case '}':
        if (inBraces) {
          regex += ')';
          inBraces = false;
        } else {
          regex += '}';
        }
        break;
      case '[':
        regex += '[';
        if (i + 1 < n && pattern[i + 1] == '!') {
          regex += '^';
          ++i;
        }
        break;
      case '\\':
        if (i + 1 < n) regex += pattern[++i];
        break;
      default:
        regex += c;
        break;
    }
  }
  return regex;
}

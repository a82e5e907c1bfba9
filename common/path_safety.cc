#include "common/path_safety.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "common/wildcard.h"
#include "log/logger.h"

namespace {

constexpr size_t kMaxPathBytes = 4095;
constexpr int kPathMax = 4096;
// Bytes that a shell would act on; paths often end up in command lines.
constexpr char kShellMetaChars[] = "|&;$<>`!(){}'\"";

// Each class of byte is looked for over the whole string before the next, so
// that the reported reason does not depend on where in the path it sits.
bool containsDangerousChars(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: contains null byte");
    return true;
  }
  for (unsigned char c : path) {
    // TAB (0x09) is deliberately let through.
    if ((c >= 0x01 && c <= 0x08) || (c >= 0x0A && c <= 0x1F)) {
      ZLOG_ERROR("FilePathCheck failed: contains control characters");
      return true;
    }
  }
  if (path.find('\x7f') != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: contains DEL character");
    return true;
  }
  if (path.find_first_of(kShellMetaChars) != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: contains shell metacharacters");
    return true;
  }
  if (path.find('\\') != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: contains backslash");
    return true;
  }
  return false;
}

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Structural UTF-8 check only: surrogates and code points above U+10FFFF are
// let through on purpose, since file systems store such names as they are.
bool isValidUTF8(const std::string& path) {
  const size_t n = path.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char lead = static_cast<unsigned char>(path[i]);
    size_t extra = 0;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      extra = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      extra = 2;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      extra = 3;
    } else {
      ZLOG_ERROR("FilePathCheck failed: invalid UTF-8 byte 0x%02X at position %zu",
                 static_cast<unsigned>(lead), i);
      return false;
    }
    if (i + extra >= n) {
      ZLOG_ERROR("FilePathCheck failed: invalid UTF-8 sequence at position %zu", i);
      return false;
    }
    for (size_t k = 1; k <= extra; ++k) {
      if (!isContinuation(static_cast<unsigned char>(path[i + k]))) {
        ZLOG_ERROR("FilePathCheck failed: invalid UTF-8 sequence at position %zu", i);
        return false;
      }
    }
    const unsigned char second = static_cast<unsigned char>(path[i + 1]);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90)) {
      ZLOG_ERROR("FilePathCheck failed: overlong UTF-8 sequence");
      return false;
    }
    i += extra + 1;
  }
  return true;
}

}  // namespace

bool isFilePathSafe(const std::string& path, bool permitSymlink, bool permitWildcard,
                    bool permitMissing) {
  const size_t len = path.size();
  if (len == 0) {
    ZLOG_ERROR("FilePathCheck failed: empty path");
    return false;
  }
  if (len > kMaxPathBytes) {
    ZLOG_ERROR("FilePathCheck failed: path too long (length=%zu, max=%d)", len, kPathMax);
    return false;
  }
  const char* text = path.c_str();
  if (path[0] != '/') {
    ZLOG_ERROR("FilePathCheck failed: not an absolute path - %s", text);
    return false;
  }
  if (path.find("//") != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: contains consecutive slashes - %s", text);
    return false;
  }
  // Deliberately a substring test: names such as "..b" next to a slash are
  // refused too, which is cheaper than being wrong about a component.
  if (path.find("/..") != std::string::npos || path.find("../") != std::string::npos) {
    ZLOG_ERROR("FilePathCheck failed: path traversal attack detected - %s", text);
    return false;
  }
  // No hidden entry directly under the root, and not "/." itself.
  if (len != 1) {
    if (path.compare(0, 2, "/.") == 0 || (len > 2 && path.compare(0, 3, "/..") == 0)) {
      ZLOG_ERROR("FilePathCheck failed: invalid root path - %s", text);
      return false;
    }
  }
  if (containsDangerousChars(path)) return false;
  if (!isValidUTF8(path)) return false;
  if (!permitWildcard && containsWildcard(path)) {
    ZLOG_ERROR("FilePathCheck failed: wildcard not allowed - %s", text);
    return false;
  }
  if (!permitMissing && access(text, F_OK) != 0) {
    ZLOG_ERROR("FilePathCheck failed: path does not exist - %s", text);
    return false;
  }
  // access() follows links, so a dangling link counts as missing, not as a link.
  if (!permitSymlink && access(text, F_OK) == 0) {
    struct stat st {};
    if (lstat(text, &st) == 0 && S_ISLNK(st.st_mode)) {
      ZLOG_ERROR("FilePathCheck failed: symbolic link not allowed - %s", text);
      return false;
    }
  }
  if (path.find(' ') != std::string::npos) {
    ZLOG_WARN("FilePathCheck: path contains spaces - %s", text);
  }
  ZLOG_DEBUG("FilePathCheck passed: %s", text);
  return true;
}

bool pathIsDir(const char* path) {
  if (path == nullptr) return false;
  struct stat st {};
  return lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool pathIsLinkFile(const char* path) {
  if (path == nullptr) return false;
  struct stat st {};
  return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

int pathIsExists(const char* path) {
  if (path == nullptr) return -1;
  return access(path, F_OK) == 0 ? 0 : -1;
}

bool containsEscapeChars(const std::string& text) { return text.find('\\') != std::string::npos; }

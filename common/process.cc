#include "common/process.h"

#include <dirent.h>
#include <fcntl.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "common/dir_stream.h"
#include "common/file_io.h"
#include "common/process_internal.h"
#include "common/unique_fd.h"
#include "log/logger.h"

namespace fs = std::filesystem;

namespace {

// Field of the stat line that holds the parent's pid, counted from 1.
constexpr int kParentPidField = 4;
constexpr size_t kMaxPidNameLength = 255;

bool isAllDigits(const char* name) {
  size_t i = 0;
  for (; i < kMaxPidNameLength && name[i] != '\0'; ++i)
    if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
  return i > 0;
}

}  // namespace

namespace process_internal {

std::vector<std::pair<std::string, std::string>> splitKernelCmdline(const std::string& line) {
  std::vector<std::pair<std::string, std::string>> parameters;
  std::istringstream tokens(line);
  std::string token;
  while (std::getline(tokens, token, ' ')) {
    size_t equals = token.find('=');
    if (equals == std::string::npos)
      parameters.emplace_back(token, "");
    else
      parameters.emplace_back(token.substr(0, equals), token.substr(equals + 1));
  }
  return parameters;
}

int32_t parentPidFromStat(const std::string& statText) {
  std::istringstream tokens(statText);
  std::string token;
  int field = 0;
  bool insideName = false;
  // The command name "(...)" may hold spaces, so its pieces are skipped until
  // the token that closes it. A name with a ')' inside a word miscounts; the
  // kernel's own names are plain enough for this scan.
  while (tokens >> token) {
    bool opens = token.front() == '(';
    bool closes = token.back() == ')';
    if (opens && !closes) {
      insideName = true;
      continue;
    }
    if (!opens && closes) {
      insideName = false;
      ++field;
      continue;
    }
    if (insideName) continue;
    if (++field == kParentPidField) {
      try {
        return std::stoi(token);
      } catch (const std::invalid_argument&) {
        return -1;
      } catch (const std::out_of_range&) {
        return -1;
      }
    }
  }
  return -1;
}

int32_t getParentPid(int32_t pid) {
  return parentPidFromStat(readFile("/proc/" + std::to_string(pid) + "/stat"));
}

std::string getProcessExecutablePath(int32_t pid) {
  try {
    return fs::read_symlink(fs::path("/proc") / std::to_string(pid) / "exe").string();
  } catch (const fs::filesystem_error& e) {
    int error = errno;
    ZLOG_DEBUG("%s, %s", e.what(), strerror(error));
    return "";
  }
}

}  // namespace process_internal

std::vector<std::pair<std::string, std::string>> parseKernelCmdline() {
  std::ifstream in("/proc/cmdline");
  if (!in.is_open()) {
    ZLOG_ERROR("open /proc/cmdline failed.");
    return {};
  }
  std::string line;
  std::getline(in, line);
  return process_internal::splitKernelCmdline(line);
}

std::vector<int32_t> getAllParent(int32_t pid) {
  std::vector<int32_t> parents;
  if (pid < 2) return parents;
  int32_t current = pid;
  for (;;) {
    int32_t parent = process_internal::getParentPid(current);
    if (parent == -1 || parent == 1) {
      // Also the normal end of the walk, at a child of init; the line names
      // the last process whose parent was looked up.
      ZLOG_ERROR("current pid %d.", current);
      return parents;
    }
    parents.push_back(parent);
    if (parent <= 1) return parents;  // 0: a kernel thread's parent
    current = parent;
  }
}

std::map<std::string, std::vector<int32_t>> findProcessExeFile() {
  std::map<std::string, std::vector<int32_t>> executables;
  zorv::UniqueFd fd(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    ZLOG_ERROR("open /proc failed.");
    return executables;
  }
  zorv::DirStream proc(std::move(fd));
  zorv::DirStream::Entry entry;
  while (proc.next(&entry)) {
    if (entry.type != DT_DIR || !isAllDigits(entry.name)) continue;
    int32_t pid;
    try {
      pid = std::stoi(entry.name);
    } catch (const std::logic_error&) {
      continue;
    }
    std::string path = process_internal::getProcessExecutablePath(pid);
    if (!path.empty()) executables[path].push_back(pid);
  }
  return executables;
}

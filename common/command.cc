#include "common/command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "log/logger.h"

extern char** environ;

namespace {

// fgets() pieces: a longer line arrives as several elements of 1023 bytes.
constexpr size_t kLineBufferSize = 1024;

/// Owns one descriptor and closes it when it goes away.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  /// Gives the descriptor up without closing it.
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

struct FileCloser {
  void operator()(FILE* stream) const { fclose(stream); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

pid_t waitForChild(pid_t pid, int* status) {
  pid_t result;
  do {
    result = waitpid(pid, status, 0);
  } while (result < 0 && errno == EINTR);
  return result;
}

// Runs in the forked child: only descriptor juggling and execve, and every
// failure ends in _exit so that none of the parent's destructors or buffered
// output runs a second time.
[[noreturn]] void runChild(int readFd, int writeFd, const char* path, char* const argv[]) {
  close(readFd);
  if (writeFd == STDOUT_FILENO) {
    // The pipe got descriptor 1 because the caller's stdout was closed; dup2
    // onto itself would keep the close-on-exec flag, so clear it instead.
    if (fcntl(writeFd, F_SETFD, 0) != 0) _exit(1);
  } else {
    if (dup2(writeFd, STDOUT_FILENO) < 0) _exit(1);
    close(writeFd);
  }
  execve(path, argv, environ);
  _exit(1);
}

}  // namespace

std::vector<std::string> executeCommand(const std::string& path,
                                        const std::vector<std::string>& args) {
  if (path.empty()) {
    ZLOG_ERROR("Command path is empty.");
    return {};
  }

  // Close-on-exec on both ends, so that no other child the process starts in
  // the meantime inherits them and keeps the pipe open.
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    int error = errno;  // saved: the logger's first use may change errno
    ZLOG_ERROR("pipe failed: %s", strerror(error));
    return {};
  }
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);

  // Built before the fork: allocating in the child of a threaded process may
  // deadlock on a lock another thread held at the fork.
  std::vector<char*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = fork();
  if (pid < 0) {
    int error = errno;
    ZLOG_ERROR("fork failed: %s", strerror(error));
    return {};
  }
  if (pid == 0) runChild(readEnd.get(), writeEnd.get(), path.c_str(), argv.data());

  writeEnd.reset();
  UniqueFile stream(fdopen(readEnd.get(), "r"));
  if (!stream) {
    int error = errno;
    ZLOG_ERROR("fdopen failed: %s", strerror(error));
    readEnd.reset();
    waitForChild(pid, nullptr);
    return {};
  }
  readEnd.release();  // the stream closes it now

  std::vector<std::string> lines;
  try {
    char buffer[kLineBufferSize];
    for (;;) {
      if (fgets(buffer, sizeof(buffer), stream.get()) == nullptr) {
        if (ferror(stream.get()) && errno == EINTR) {
          clearerr(stream.get());
          continue;
        }
        break;
      }
      size_t length = strlen(buffer);
      if (length > 0 && buffer[length - 1] == '\n') --length;
      lines.emplace_back(buffer, length);
    }
  } catch (...) {
    stream.reset();
    waitForChild(pid, nullptr);
    throw;
  }
  stream.reset();

  int status = 0;
  if (waitForChild(pid, &status) < 0) {
    int error = errno;
    ZLOG_ERROR("waitpid failed: %s", strerror(error));
    return {};
  }
  if (WIFEXITED(status)) {
    if (WEXITSTATUS(status) == 0) return lines;
    ZLOG_ERROR("Command failed [%d]: %s", WEXITSTATUS(status), path.c_str());
    return {};
  }
  if (WIFSIGNALED(status)) {
    ZLOG_ERROR("Command killed by signal %d: %s", WTERMSIG(status), path.c_str());
    return {};
  }
  return lines;
}

bool commandExists(const std::string& name) {
  const char* searchPath = getenv("PATH");
  if (searchPath == nullptr) return false;
  // A plain delimited read: an empty field is a field of its own (and names
  // the root directory below), a trailing colon adds none.
  std::istringstream fields(searchPath);
  std::string field;
  while (std::getline(fields, field, ':')) {
    std::string candidate = field + "/" + name;
    struct stat info;
    // Only the owner's execute bit is asked, not whether this user may run it.
    if (stat(candidate.c_str(), &info) == 0 && (info.st_mode & S_IXUSR) != 0) return true;
  }
  return false;
}

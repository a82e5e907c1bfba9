#include "cli/tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace zorv_testing {
namespace {

// Both ends of a pipe, closed when it goes.
struct Pipe {
  Pipe() {
    if (pipe2(fd, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  }
  ~Pipe() {
    for (int end : {0, 1}) closeEnd(end);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  void closeEnd(int end) {
    if (fd[end] >= 0) close(fd[end]);
    fd[end] = -1;
  }
  int fd[2] = {-1, -1};
};

std::vector<std::string> mergedEnvironment(const Environment& overrides) {
  Environment merged;
  for (char** e = environ; *e != nullptr; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (eq != nullptr) merged[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
  }
  for (const auto& [name, value] : overrides) {
    if (value.empty()) {
      merged.erase(name);
    } else {
      merged[name] = value;
    }
  }
  std::vector<std::string> result;
  for (const auto& [name, value] : merged) result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& t : texts) result.push_back(t.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& args, const Environment& env,
                   double timeoutSeconds, const std::string& stopAt) {
  std::vector<std::string> argvTexts{"zorv-label-manager-tool"};
  argvTexts.insert(argvTexts.end(), args.begin(), args.end());
  std::vector<std::string> envTexts = mergedEnvironment(env);
  std::vector<char*> argv = pointers(argvTexts);
  std::vector<char*> envp = pointers(envTexts);

  Pipe out, err;
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    // Only async-signal-safe calls from here on.
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || dup2(null, 0) < 0 || dup2(out.fd[1], 1) < 0 || dup2(err.fd[1], 2) < 0) {
      _exit(126);
    }
    // An abnormal end is expected in some tests; leave no core file behind.
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    execve(ZORV_TOOL_PATH, argv.data(), envp.data());
    _exit(127);
  }
  out.closeEnd(1);
  err.closeEnd(1);

  ToolResult result;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long>(timeoutSeconds * 1000));
  bool killed = false;
  struct pollfd fds[2] = {{out.fd[0], POLLIN, 0}, {err.fd[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !killed) {
      kill(pid, SIGKILL);
      killed = true;
    }
    if (poll(fds, 2, killed ? 1000 : static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
        if (i == 0 && !stopAt.empty() && !killed && result.out.find(stopAt) != std::string::npos) {
          kill(pid, SIGKILL);
          killed = true;
        }
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int waitStatus = 0;
  while (waitpid(pid, &waitStatus, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(waitStatus)) result.status = WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) result.signal = WTERMSIG(waitStatus);
  return result;
}

void expectResult(const ToolResult& r, const std::string& out, int status, const std::string& err) {
  EXPECT_EQ(r.out, out);
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.status, status);
  EXPECT_EQ(r.signal, 0);
}

std::string fakeLabelManagerDir() { return ZORV_FAKE_LABELMGR_DIR; }

FakeLabelManager::FakeLabelManager() { script(""); }

void FakeLabelManager::script(const std::string& rules) {
  writeTextFile(dir_ / "script", rules);
  writeTextFile(dir_ / "calls", "");
}

ToolResult FakeLabelManager::run(const std::vector<std::string>& args, Environment env) const {
  env["LD_LIBRARY_PATH"] = fakeLabelManagerDir();
  env["ZORV_FAKE_LABELMGR_SCRIPT"] = dir_ / "script";
  env["ZORV_FAKE_LABELMGR_LOG"] = dir_ / "calls";
  return runTool(args, env);
}

void FakeLabelManager::expect(const std::vector<std::string>& args, const std::string& out,
                              int status, const std::string& err) const {
  expectResult(run(args), out, status, err);
}

std::vector<std::string> FakeLabelManager::calls() const {
  std::vector<std::string> result;
  std::istringstream in(readTextFile(dir_ / "calls"));
  std::string line;
  while (std::getline(in, line)) result.push_back(line);
  return result;
}

}  // namespace zorv_testing

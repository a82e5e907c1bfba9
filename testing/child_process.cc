#include "testing/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "testing/test_util.h"

extern char** environ;

namespace zorv_testing {

ChildResult runChild(const std::string& path, const std::vector<std::string>& argvTexts,
                     const std::vector<std::string>& envTexts, double timeoutSeconds,
                     const std::string& input) {
  std::vector<char*> argv, envp;
  for (const std::string& t : argvTexts) argv.push_back(const_cast<char*>(t.c_str()));
  for (const std::string& t : envTexts) envp.push_back(const_cast<char*>(t.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  // Output goes to files rather than pipes: nothing to drain while the run
  // goes on, and another thread's child cannot inherit our end of a pipe.
  ScopedTempDir dir;
  const std::string inPath = input.empty() ? "/dev/null" : dir / "in";
  const std::string outPath = dir / "out", errPath = dir / "err";
  if (!input.empty()) writeTextFile(inPath, input);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {  // only async-signal-safe calls from here on
    const int in = open(inPath.c_str(), O_RDONLY);
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
      _exit(126);
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    execve(path.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int waitStatus = 0;
  while (waitpid(pid, &waitStatus, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  ChildResult result{readTextFile(outPath), readTextFile(errPath)};
  if (WIFEXITED(waitStatus)) result.status = WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) result.signal = WTERMSIG(waitStatus);
  return result;
}

std::vector<std::string> currentEnvironment() {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  return env;
}

}  // namespace zorv_testing

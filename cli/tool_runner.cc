#include "cli/tool_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace zorv_testing {

ToolResult runTool(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env, double timeoutSeconds) {
  return runProgram(ZORV_TOOL_PATH, "zorv-label-manager-tool", args, env, "", timeoutSeconds);
}

ToolResult runProgram(const std::string& program, const std::string& name,
                      const std::vector<std::string>& args,
                      const std::map<std::string, std::string>& env, const std::string& input,
                      double timeoutSeconds) {
  std::vector<std::string> argvTexts{name}, envTexts;
  argvTexts.insert(argvTexts.end(), args.begin(), args.end());
  for (char** e = environ; *e != nullptr; ++e)
    if (env.count(std::string(*e, std::strcspn(*e, "="))) == 0) envTexts.push_back(*e);
  for (const auto& [name, value] : env)
    if (!value.empty()) envTexts.push_back(name + "=" + value);
  std::vector<char*> argv, envp;
  for (std::string& t : argvTexts) argv.push_back(t.data());
  for (std::string& t : envTexts) envp.push_back(t.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  // Output goes to files rather than pipes: nothing to drain while the run
  // goes on, and another thread's child cannot inherit our end of a pipe.
  ScopedTempDir dir;
  const std::string inPath = dir / "in", outPath = dir / "out", errPath = dir / "err";
  writeTextFile(inPath, input);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {  // only async-signal-safe calls from here on
    const int in = open(inPath.c_str(), O_RDONLY);
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
      _exit(126);
    // An abnormal end is expected in some tests; leave no core file behind.
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int waitStatus = 0;
  while (waitpid(pid, &waitStatus, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  ToolResult result{readTextFile(outPath), readTextFile(errPath)};
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

void FakeLabelManager::expect(const std::vector<std::string>& args, const std::string& out,
                              int status, const std::string& err) const {
  expectResult(runTool(args, {{"LD_LIBRARY_PATH", fakeLabelManagerDir()},
                              {"ZORV_FAKE_LABELMGR_SCRIPT", dir_ / "script"},
                              {"ZORV_FAKE_LABELMGR_LOG", dir_ / "calls"}}),
               out, status, err);
}

}  // namespace zorv_testing

#include "common/command.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/logger.h"
#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

using Lines = std::vector<std::string>;

bool loggedError(LogCapture& capture, const std::string& tag, const std::string& message) {
  const std::string head = "ERROR [" + tag + ":";
  const std::string tail = "] " + message;
  for (const std::string& line : capture.lines()) {
    if (line.rfind(head, 0) == 0 && line.size() >= tail.size() &&
        line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

std::string writeScript(const ScopedTempDir& dir, const std::string& name,
                        const std::string& body) {
  std::string path = dir / name;
  writeTextFile(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
  return path;
}

size_t openDescriptorCount() {
  size_t count = 0;
  DIR* fds = opendir("/proc/self/fd");
  if (fds == nullptr) return 0;
  while (const dirent* entry = readdir(fds))
    if (entry->d_name[0] != '.') ++count;
  closedir(fds);
  return count - 1;  // the listing's own descriptor
}

// Sets PATH (or unsets it for nullptr) for one scope.
class ScopedPath {
 public:
  explicit ScopedPath(const char* value) {
    const char* old = getenv("PATH");
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
    if (value != nullptr)
      setenv("PATH", value, 1);
    else
      unsetenv("PATH");
  }
  ~ScopedPath() {
    if (hadOld_)
      setenv("PATH", old_.c_str(), 1);
    else
      unsetenv("PATH");
  }
  ScopedPath(const ScopedPath&) = delete;
  ScopedPath& operator=(const ScopedPath&) = delete;

 private:
  bool hadOld_ = false;
  std::string old_;
};

}  // namespace

TEST(ExecuteCommandTest, CollectsStandardOutputLineByLine) {
  EXPECT_EQ((Lines{"a b"}), executeCommand("/bin/echo", {"a", "b"}));
  EXPECT_EQ((Lines{"one", "", "two\r", "last"}),
            executeCommand("/bin/sh", {"-c", "printf 'one\\n\\ntwo\\r\\nlast'"}));
  EXPECT_EQ(Lines{}, executeCommand("/bin/true", {}));
  // Only standard output is captured.
  EXPECT_EQ(Lines{"out"}, executeCommand("/bin/sh", {"-c", "echo out; echo err >&2"}));
}

TEST(ExecuteCommandTest, PassesArgumentsAndEnvironmentUnchanged) {
  setenv("ZORV_COMMAND_TEST", "from parent", 1);
  EXPECT_EQ((Lines{"[from parent]", "[two words]", "[*]", "[]"}),
            executeCommand("/bin/sh", {"-c", "printf '[%s]\\n' \"$ZORV_COMMAND_TEST\" \"$@\"",
                                       "name", "two words", "*", ""}));
  unsetenv("ZORV_COMMAND_TEST");
}

TEST(ExecuteCommandTest, SplitsLongLinesEvery1023Bytes) {
  ScopedTempDir dir;
  writeTextFile(dir / "long", std::string(3000, 'x') + "\n" + std::string(1023, 'y') + "\n");
  Lines lines = executeCommand("/bin/cat", {dir / "long"});
  ASSERT_EQ(5u, lines.size());
  EXPECT_EQ(std::string(1023, 'x'), lines[0]);
  EXPECT_EQ(std::string(1023, 'x'), lines[1]);
  EXPECT_EQ(std::string(954, 'x'), lines[2]);
  // A line that fills the buffer exactly leaves its newline for a piece of
  // its own, which comes back empty.
  EXPECT_EQ(std::string(1023, 'y'), lines[3]);
  EXPECT_EQ("", lines[4]);
}

TEST(ExecuteCommandTest, FailuresDiscardOutputAndSayWhy) {
  ScopedTempDir dir;
  std::string script = writeScript(dir, "fails", "echo first\necho second\nexit 2\n");
  LogCapture capture;

  EXPECT_EQ(Lines{}, executeCommand(script, {}));
  EXPECT_TRUE(loggedError(capture, "executeCommand", "Command failed [2]: " + script))
      << capture.dump();

  // No search of PATH: the child cannot execute a bare name and exits 1.
  EXPECT_EQ(Lines{}, executeCommand("echo", {"x"}));
  EXPECT_TRUE(loggedError(capture, "executeCommand", "Command failed [1]: echo")) << capture.dump();

  EXPECT_EQ(Lines{}, executeCommand("/bin/sh", {"-c", "echo partial; kill -9 $$"}));
  EXPECT_TRUE(loggedError(capture, "executeCommand", "Command killed by signal 9: /bin/sh"))
      << capture.dump();

  EXPECT_EQ(Lines{}, executeCommand("", {"x"}));
  EXPECT_TRUE(loggedError(capture, "executeCommand", "Command path is empty.")) << capture.dump();
}

TEST(ExecuteCommandTest, LeavesNoDescriptorOpen) {
  ScopedTempDir dir;
  std::string script = writeScript(dir, "fails", "echo out\nexit 3\n");
  Logger::getInstance();  // its log file stays open for good; open it first
  size_t before = openDescriptorCount();
  for (int i = 0; i < 3; ++i) {
    executeCommand("/bin/echo", {"ok"});
    executeCommand(script, {});
    executeCommand(dir / "missing", {});
    executeCommand("/bin/sh", {"-c", "kill -9 $$"});
  }
  EXPECT_EQ(before, openDescriptorCount());
}

TEST(ExecuteCommandTest, WorksWhenTheCallerHasNoStandardStreams) {
  // With 0 and 1 closed the pipe itself lands on descriptors 0 and 1, the
  // case where duplicating onto standard output would be a no-op.
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    _exit(executeCommand("/bin/echo", {"still here"}) == Lines{"still here"} ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(CommandExistsTest, AsksOnlyForTheOwnerExecuteBit) {
  ScopedTempDir dir;
  std::string bin = dir / "bin";
  writeTextFile(bin + "/tool", "");
  chmod((bin + "/tool").c_str(), 0700);
  writeTextFile(bin + "/plain", "");
  chmod((bin + "/plain").c_str(), 0644);
  writeTextFile(bin + "/others", "");
  chmod((bin + "/others").c_str(), 0011);
  makeDirs(bin + "/subdir");
  symlink("tool", (bin + "/link").c_str());

  ScopedPath path(((dir / "empty:") + bin).c_str());
  EXPECT_TRUE(commandExists("tool"));
  EXPECT_TRUE(commandExists("link"));
  EXPECT_TRUE(commandExists("subdir"));  // a directory counts
  EXPECT_FALSE(commandExists("plain"));
  EXPECT_FALSE(commandExists("others"));
  EXPECT_FALSE(commandExists("missing"));
  // The name is appended as it is, even when it already holds slashes.
  EXPECT_TRUE(commandExists("subdir/../tool"));
}

TEST(CommandExistsTest, EmptyFieldsNameTheRootDirectory) {
  ScopedTempDir dir;
  {
    // A leading empty field gives "/bin", a directory with the execute bit.
    ScopedPath path((":" + (dir / "none")).c_str());
    EXPECT_TRUE(commandExists("bin"));
  }
  {
    // A trailing colon adds no field.
    ScopedPath path(((dir / "none") + ":").c_str());
    EXPECT_FALSE(commandExists("bin"));
  }
  {
    ScopedPath path(nullptr);
    EXPECT_FALSE(commandExists("sh"));
  }
}

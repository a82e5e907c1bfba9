#include "common/command.h"

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
using zorv_testing::openDescriptorCount;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

using Lines = std::vector<std::string>;

}  // namespace

TEST(ExecuteCommandTest, CollectsStandardOutputLineByLine) {
  EXPECT_EQ(Lines{"a b"}, executeCommand("/bin/echo", {"a", "b"}));
  // Arguments go through untouched after the program's own name, with the
  // caller's environment; standard error is not collected; an unterminated
  // last line still counts and a carriage return stays.
  zorv_testing::ScopedEnv variable("ZORV_COMMAND_TEST", "from parent");
  EXPECT_EQ((Lines{"[from parent]", "[two words]", "[*]", "[]", "cr\r", "last"}),
            executeCommand("/bin/sh", {"-c",
                                       "printf '[%s]\\n' \"$ZORV_COMMAND_TEST\" \"$@\"; "
                                       "echo err >&2; printf 'cr\\r\\nlast'",
                                       "name", "two words", "*", ""}));
}

TEST(ExecuteCommandTest, SplitsLongLinesEvery1023Bytes) {
  ScopedTempDir dir;
  writeTextFile(dir / "long", std::string(3000, 'x') + "\n" + std::string(1023, 'y') + "\n");
  // A line that fills the buffer exactly leaves its newline to an empty piece.
  EXPECT_EQ((Lines{std::string(1023, 'x'), std::string(1023, 'x'), std::string(954, 'x'),
                   std::string(1023, 'y'), ""}),
            executeCommand("/bin/cat", {dir / "long"}));
}

TEST(ExecuteCommandTest, FailuresDiscardOutputAndSayWhy) {
  ScopedTempDir dir;
  const std::string script = dir / "fails";
  writeTextFile(script, "#!/bin/sh\necho first\necho second\nexit 2\n");
  chmod(script.c_str(), 0755);
  LogCapture capture;
  EXPECT_EQ(Lines{}, executeCommand(script, {}));
  EXPECT_EQ(Lines{}, executeCommand("echo", {"x"}));  // no PATH search: exec fails, exit 1
  EXPECT_EQ(Lines{}, executeCommand("/bin/sh", {"-c", "echo partial; kill -9 $$"}));
  EXPECT_EQ(Lines{}, executeCommand("", {"x"}));
  EXPECT_TRUE(capture.hasRecord("ERROR [executeCommand] Command failed [2]: " + script));
  EXPECT_TRUE(capture.hasRecord("ERROR [executeCommand] Command failed [1]: echo"));
  EXPECT_TRUE(capture.hasRecord("ERROR [executeCommand] Command killed by signal 9: /bin/sh"));
  EXPECT_TRUE(capture.hasRecord("ERROR [executeCommand] Command path is empty."));
  EXPECT_EQ(4u, capture.lines().size()) << capture.dump();
}

TEST(ExecuteCommandTest, LeavesNoDescriptorOpen) {
  Logger::getInstance();  // its log file stays open for good; open it first
  size_t before = openDescriptorCount();
  for (int i = 0; i < 3; ++i) {
    executeCommand("/bin/echo", {"ok"});
    executeCommand("/bin/sh", {"-c", "echo out; exit 3"});
    executeCommand("/nonexistent/program", {});
    executeCommand("/bin/sh", {"-c", "kill -9 $$"});
  }
  EXPECT_EQ(before, openDescriptorCount());
}

TEST(ExecuteCommandTest, WorksWhenTheCallerHasNoStandardStreams) {
  // With 0 and 1 closed the pipe itself gets them, and duplicating its write
  // end onto standard output would be a no-op.
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    _exit(executeCommand("/bin/echo", {"still here"}) == Lines{"still here"} ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(CommandExistsTest, PathFieldsAndTheOwnerExecuteBit) {
  ScopedTempDir dir;
  const std::string bin = dir / "bin";
  for (const auto& [name, mode] :
       {std::pair<const char*, mode_t>{"tool", 0700}, {"plain", 0644}, {"others", 0011}}) {
    writeTextFile(bin + "/" + name, "");
    chmod((bin + "/" + name).c_str(), mode);
  }
  makeDirs(bin + "/subdir");
  zorv_testing::ScopedEnv path("PATH", (dir / "none:") + bin);
  EXPECT_TRUE(commandExists("tool"));
  EXPECT_TRUE(commandExists("subdir"));          // a directory counts
  EXPECT_TRUE(commandExists("subdir/../tool"));  // appended as it is
  EXPECT_FALSE(commandExists("plain"));
  EXPECT_FALSE(commandExists("others"));
  // An empty field names the root directory; a trailing colon adds none.
  setenv("PATH", (":" + (dir / "none")).c_str(), 1);
  EXPECT_TRUE(commandExists("bin"));
  setenv("PATH", ((dir / "none") + ":").c_str(), 1);
  EXPECT_FALSE(commandExists("bin"));
  unsetenv("PATH");
  EXPECT_FALSE(commandExists("sh"));
}

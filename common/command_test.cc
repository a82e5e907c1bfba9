#include "common/command.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/logger.h"
#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;
using Lines = std::vector<std::string>;

TEST(ExecuteCommandTest, CollectsStandardOutputLineByLine) {
  // Arguments pass untouched, with the caller's environment; standard error is
  // not collected; an unterminated last line counts and a carriage return stays.
  zorv_testing::ScopedEnv variable("ZORV_COMMAND_TEST", "from parent");
  EXPECT_EQ((Lines{"[from parent]", "[two words]", "[*]", "[]", "cr\r", "last"}),
            executeCommand("/bin/sh", {"-c",
                                       "printf '[%s]\\n' \"$ZORV_COMMAND_TEST\" \"$@\"; "
                                       "echo err >&2; printf 'cr\\r\\nlast'",
                                       "name", "two words", "*", ""}));
  ScopedTempDir dir;
  writeTextFile(dir / "long", std::string(3000, 'x') + "\n" + std::string(1023, 'y') + "\n");
  // Pieces of 1023 bytes; a line that fills one exactly leaves an empty piece.
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
  EXPECT_EQ((Lines{"ERROR [executeCommand] Command failed [2]: " + script,
                   "ERROR [executeCommand] Command failed [1]: echo",
                   "ERROR [executeCommand] Command killed by signal 9: /bin/sh"}),
            capture.records());
}

TEST(ExecuteCommandTest, LeavesNoDescriptorOpenAndCopesWithoutStandardStreams) {
  Logger::getInstance();  // its log file stays open for good; open it first
  const size_t before = zorv_testing::openDescriptorCount();
  for (int i = 0; i < 3; ++i) {
    executeCommand("/bin/sh", {"-c", "echo out; exit 3"});
    executeCommand("/nonexistent/program", {});
    executeCommand("/bin/sh", {"-c", "kill -9 $$"});
  }
  EXPECT_EQ(before, zorv_testing::openDescriptorCount());

  // With 0 and 1 closed the pipe itself gets them.
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

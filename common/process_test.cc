#include "common/process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/process_internal.h"
#include "testing/test_util.h"

using zorv_testing::LogCapture;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

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

}  // namespace

TEST(KernelCmdlineTest, SplitsAtEverySingleSpace) {
  EXPECT_EQ((Pairs{{"ro", ""}, {"", ""}, {"quiet", ""}, {"root", "/dev/sda1"}, {"a", "b=c"}}),
            process_internal::splitKernelCmdline("ro  quiet root=/dev/sda1 a=b=c"));
  EXPECT_EQ((Pairs{{"", ""}, {"x", ""}, {"x", "1"}}),
            process_internal::splitKernelCmdline(" x x=1 "));
  EXPECT_EQ((Pairs{{"opt", "\"a"}, {"b\"", ""}, {"t\tab", ""}}),
            process_internal::splitKernelCmdline("opt=\"a b\" t\tab"));
  EXPECT_TRUE(process_internal::splitKernelCmdline("").empty());
}

TEST(KernelCmdlineTest, ReadsTheFirstLineOfTheRunningKernels) {
  std::ifstream in("/proc/cmdline");
  ASSERT_TRUE(in.is_open());
  std::string line;
  std::getline(in, line);
  Pairs parameters = parseKernelCmdline();
  EXPECT_EQ(process_internal::splitKernelCmdline(line), parameters);
  EXPECT_EQ(line.empty(), parameters.empty());
}

TEST(ParentPidTest, SkipsTheCommandName) {
  EXPECT_EQ(812, process_internal::parentPidFromStat("900 (bash) S 812 900 900 0 -1\n"));
  EXPECT_EQ(77, process_internal::parentPidFromStat("5 (my prog) R 77 5 5"));
  EXPECT_EQ(77, process_internal::parentPidFromStat("5 (a b c d) R 77 5 5"));
  EXPECT_EQ(0, process_internal::parentPidFromStat("2 (kthreadd) S 0 0 0"));
}

TEST(ParentPidTest, ShortOrMalformedStatGivesMinusOne) {
  EXPECT_EQ(-1, process_internal::parentPidFromStat(""));
  EXPECT_EQ(-1, process_internal::parentPidFromStat("5 (x) S"));
  EXPECT_EQ(-1, process_internal::parentPidFromStat("5 (x) S ppid 5"));
  EXPECT_EQ(-1, process_internal::parentPidFromStat("5 (x) S 99999999999 5"));
  EXPECT_EQ(-1, process_internal::parentPidFromStat("5 (never closed S 7 8 9"));
  // A word closing in ')' inside the name ends it early and shifts the fields.
  EXPECT_EQ(-1, process_internal::parentPidFromStat("5 (a) b) R 7 9"));
}

TEST(GetAllParentTest, WalksUpFromTheTestProcess) {
  LogCapture capture;
  std::vector<int32_t> parents = getAllParent(getpid());
  ASSERT_FALSE(parents.empty());
  EXPECT_EQ(getppid(), parents.front());
  for (size_t i = 0; i + 1 < parents.size(); ++i)
    EXPECT_EQ(parents[i + 1], process_internal::getParentPid(parents[i]));
  for (int32_t pid : parents) EXPECT_NE(1, pid);
  // The walk ends at a child of init (or of the kernel, pid 0).
  if (parents.back() != 0) {
    EXPECT_TRUE(
        loggedError(capture, "getAllParent", "current pid " + std::to_string(parents.back()) + "."))
        << capture.dump();
  }
}

TEST(GetAllParentTest, NoWalkForPidsBelowTwoOrGoneProcesses) {
  LogCapture capture;
  EXPECT_TRUE(getAllParent(1).empty());
  EXPECT_TRUE(getAllParent(0).empty());
  EXPECT_TRUE(getAllParent(-5).empty());
  EXPECT_TRUE(capture.lines().empty()) << capture.dump();

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_TRUE(getAllParent(child).empty());
  EXPECT_TRUE(loggedError(capture, "getAllParent", "current pid " + std::to_string(child) + "."))
      << capture.dump();
  EXPECT_TRUE(capture.contains("ERROR [readFile:")) << capture.dump();
}

TEST(FindProcessExeFileTest, MapsOurOwnExecutableToOurPid) {
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::map<std::string, std::vector<int32_t>> executables = findProcessExeFile();
  auto found = executables.find(self);
  ASSERT_NE(executables.end(), found);
  EXPECT_NE(found->second.end(), std::find(found->second.begin(), found->second.end(), getpid()));
  EXPECT_EQ("", process_internal::getProcessExecutablePath(-1));
}

#include "common/process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/process_internal.h"
#include "testing/test_util.h"

using zorv_testing::LogCapture;
namespace pi = process_internal;

TEST(ProcessTest, ParsesKernelCmdlineAndStatLines) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ((Pairs{{"ro", ""}, {"", ""}, {"opt", "\"a"}, {"b\"", ""}, {"a", "b=c"}}),
            pi::splitKernelCmdline("ro  opt=\"a b\" a=b=c"));
  EXPECT_EQ(77, pi::parentPidFromStat("5 (my own prog) R 77 5 5"));
  EXPECT_EQ(-1, pi::parentPidFromStat("5 (x) S 99999999999 5"));
  // A word closing in ')' inside the name ends it early and shifts the fields.
  EXPECT_EQ(-1, pi::parentPidFromStat("5 (a) b) R 7 9"));
}

TEST(ProcessTest, GetAllParentWalksUpToAChildOfInit) {
  std::vector<int32_t> parents = getAllParent(getpid());
  ASSERT_FALSE(parents.empty());
  EXPECT_EQ(getppid(), parents.front());
  for (size_t i = 0; i + 1 < parents.size(); ++i)
    EXPECT_EQ(parents[i + 1], pi::getParentPid(parents[i]));
  EXPECT_EQ(parents.end(), std::find(parents.begin(), parents.end(), 1));

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  LogCapture capture;
  EXPECT_TRUE(getAllParent(child).empty());
  const std::string pid = std::to_string(child);
  EXPECT_EQ(
      (std::vector<std::string>{"ERROR [readFile] Unable to open file, /proc/" + pid + "/stat",
                                "ERROR [getAllParent] current pid " + pid + "."}),
      capture.records());
}

TEST(ProcessTest, FindProcessExeFileListsUs) {
  std::map<std::string, std::vector<int32_t>> executables = findProcessExeFile();
  auto self = executables.find(std::filesystem::read_symlink("/proc/self/exe").string());
  ASSERT_NE(executables.end(), self);
  EXPECT_NE(self->second.end(), std::find(self->second.begin(), self->second.end(), getpid()));
}

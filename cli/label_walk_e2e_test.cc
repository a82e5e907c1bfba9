// Whole-label show and removal on real files with real "security.zorv"
// attributes in a temporary tree.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "cli/tool_runner.h"
#include "label/label.h"

namespace zorv_testing {
namespace {

// Labels `path` (the link itself with `onLink`; a missing path becomes an
// empty file) with OID 1-2-N and TID N (N below 10); answers the tool's line for it.
std::string labelFile(const std::string& path, uint64_t n, bool onLink = false) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) writeTextFile(path, "");
  Label label;
  label.oid_ = {1, 2, n};
  label.tid_ = static_cast<uint32_t>(n);
  EXPECT_EQ(label.setToXattr(path, onLink), 0) << path;
  const std::string zero = "0000000000000000-0000000000000000-0000000000000000";
  return "file: " + path + " label: 0000000000000001-0000000000000002-000000000000000" +
         std::to_string(n) + ":" + std::to_string(n) + ":" + zero + ":0:" + zero + "\n";
}

class LabelWalkE2eTest : public testing::Test {
 protected:
  FakeLabelManager fake_;  // the walkers never call the library
  ScopedTempDir tmp_;
};

TEST_F(LabelWalkE2eTest, ShowsMatchesSortedAndWalksWithoutFollowingLinks) {
  const std::string b = labelFile(tmp_ / "b", 2), a = labelFile(tmp_ / "a", 1);
  writeTextFile(tmp_ / "c", "");
  ASSERT_EQ(symlink("missing", (tmp_ / "d").c_str()), 0);
  fake_.expect({"-g", "-l", tmp_ / "*", tmp_ / "nothing*"}, a + b + "get file label failed, \n", 0,
               "Error: File or directory does not exist: " + (tmp_ / "d") +
                   "\nWarning: No files matched the pattern: " + (tmp_ / "nothing*") + "\n");
  expectResult(fake_.run({"-g", "-l", "~/a"}, {{"HOME", tmp_.path()}}), a);

  // A link to a directory is shown with its target's label, never entered.
  makeDirs(tmp_ / "s/inside");
  makeDirs(tmp_ / "t");
  labelFile(tmp_ / "t", 3);
  ASSERT_EQ(symlink("../s", (tmp_ / "t/link").c_str()), 0);
  std::string s = labelFile(tmp_ / "s", 4);
  fake_.expect({"-R", "-g", "-l", tmp_ / "t/"},
               labelFile(tmp_ / "t/", 3) + s.replace(6, (tmp_ / "s").size(), tmp_ / "t/link"));
}

TEST_F(LabelWalkE2eTest, RemovalTakesTheLinksOwnLabelAndReportsUnlabelledFiles) {
  const std::string target = labelFile(tmp_ / "target", 1);
  ASSERT_EQ(symlink("target", (tmp_ / "link").c_str()), 0);
  const std::string own = labelFile(tmp_ / "link", 2, true);
  fake_.expect({"-H", "-g", "-l", tmp_ / "link"}, own);
  fake_.expect({"-H", "-d", "-l", tmp_ / "link"}, kDeleteRule);
  EXPECT_LT(lgetxattr((tmp_ / "link").c_str(), "security.zorv", nullptr, 0), 0);
  EXPECT_GE(getxattr((tmp_ / "target").c_str(), "security.zorv", nullptr, 0), 0);

  makeDirs(tmp_ / "t/sub");
  for (const char* p : {"t", "t/sub", "t/sub/f"}) labelFile(tmp_ / p, 3);
  writeTextFile(tmp_ / "t/bare", "");
  fake_.expect({"-d", "-R", "-l", tmp_ / "t"},
               kDeleteRule + "remove file label from xattr error, " + (tmp_ / "t/bare") +
                   " lremovexattr failed, No data available\n");
  EXPECT_LT(getxattr((tmp_ / "t/sub/f").c_str(), "security.zorv", nullptr, 0), 0);
}

// Run as uid 65534 from copies of the tool and the double in the temporary
// tree, which that user can reach whatever the build tree's permissions.
TEST_F(LabelWalkE2eTest, AnUnreadableDirectoryIsReportedAndSkipped) {
  writeTextFile(tmp_ / "t/locked/hidden", "");
  ASSERT_EQ(chmod(tmp_.path().c_str(), 0777), 0);  // the run logs here
  ASSERT_EQ(chmod((tmp_ / "t").c_str(), 0755), 0);
  ASSERT_EQ(chmod((tmp_ / "t/locked").c_str(), 0700), 0);
  const std::string fakeDir = fakeLabelManagerDir();
  const std::string tool = fakeDir.substr(0, fakeDir.rfind('/')) + "/zorv-label-manager-tool";
  ASSERT_EQ(runShell("cp -a '" + fakeDir + "' '" + tool + "' '" + tmp_.path() + "'"), 0);
  writeTextFile(tmp_ / "log.properties",
                "log4cpp.rootCategory=DEBUG, F\nlog4cpp.appender.F=FileAppender\n"
                "log4cpp.appender.F.fileName=" +
                    (tmp_ / "tool.log") + "\nlog4cpp.appender.F.layout=SimpleLayout\n");
  const int status =
      runShell("setpriv --reuid=65534 --regid=65534 --clear-groups env -i LD_LIBRARY_PATH='" +
               (tmp_ / "fake") + "' ZORV_LABEL_LOG_PROPERTIES='" + (tmp_ / "log.properties") +
               "' '" + (tmp_ / "zorv-label-manager-tool") + "' -R -g -l '" + (tmp_ / "t") + "' >'" +
               (tmp_ / "out") + "' 2>'" + (tmp_ / "err") + "'");
  EXPECT_EQ(readTextFile(tmp_ / "out"), "get file label failed, \n" + (tmp_ / "t/locked") +
                                            " opendir error: Permission denied\n");
  EXPECT_EQ(readTextFile(tmp_ / "err"), "");
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zorv_testing

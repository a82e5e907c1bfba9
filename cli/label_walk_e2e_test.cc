// Whole-label show and removal on real files with real "security.zorv"
// attributes in a temporary tree.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/tool_runner.h"
#include "label/label.h"

namespace zorv_testing {
namespace {

const std::string kZeroId = "0000000000000000-0000000000000000-0000000000000000";

// Labels `path` (the link itself with `onLink`; a missing path becomes an
// empty file) with OID 1-2-N and TID N, and returns the text the tool must
// print for it.
std::string labelFile(const std::string& path, uint64_t n, bool onLink = false) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) writeTextFile(path, "");
  Label label;
  label.oid_.pkg_ = 1;
  label.oid_.file_ = 2;
  label.oid_.path_ = n;
  label.tid_ = static_cast<uint32_t>(n);
  EXPECT_EQ(label.setToXattr(path, onLink), 0) << path;
  char oid[64];
  std::snprintf(oid, sizeof oid, "0000000000000001-0000000000000002-%016llx",
                static_cast<unsigned long long>(n));
  return std::string(oid) + ":" + std::to_string(n) + ":" + kZeroId + ":0:" + kZeroId;
}

std::string shown(const std::string& path, const std::string& label) {
  return "file: " + path + " label: " + label + "\n";
}

bool hasLabel(const std::string& path, bool onLink = false) {
  return (onLink ? lgetxattr(path.c_str(), "security.zorv", nullptr, 0)
                 : getxattr(path.c_str(), "security.zorv", nullptr, 0)) >= 0;
}

class LabelWalkE2eTest : public testing::Test {
 protected:
  FakeLabelManager fake_;  // the walkers never call the library
  ScopedTempDir tmp_;
};

TEST_F(LabelWalkE2eTest, ShowsEachMatchInSortedOrder) {
  const std::string b = labelFile(tmp_ / "b", 2);
  const std::string a = labelFile(tmp_ / "a", 1);
  writeTextFile(tmp_ / "c", "");
  ASSERT_EQ(symlink("missing", (tmp_ / "d").c_str()), 0);
  fake_.expect({"-g", "-l", tmp_ / "*", tmp_ / "nothing*", tmp_ / "a"},
               shown(tmp_ / "a", a) + shown(tmp_ / "b", b) + "get file label failed, \n" +
                   shown(tmp_ / "a", a),
               0,
               "Error: File or directory does not exist: " + (tmp_ / "d") +
                   "\nWarning: No files matched the pattern: " + (tmp_ / "nothing*") + "\n");

  // A leading tilde is the home directory.
  expectResult(fake_.run({"-g", "-l", "~/a"}, {{"HOME", tmp_.path()}}), shown(tmp_ / "a", a));
}

TEST_F(LabelWalkE2eTest, RecursiveWalkVisitsParentsFirstAndNeverFollowsLinks) {
  makeDirs(tmp_ / "t/sub/deeper");
  writeTextFile(tmp_ / "t/f1", "");
  writeTextFile(tmp_ / "t/sub/f2", "");
  writeTextFile(tmp_ / "t/sub/deeper/f3", "");
  ASSERT_EQ(symlink("sub", (tmp_ / "t/linkdir").c_str()), 0);
  const std::vector<std::string> paths = {"t",        "t/f1",         "t/sub",
                                          "t/sub/f2", "t/sub/deeper", "t/sub/deeper/f3"};
  for (size_t i = 0; i < paths.size(); ++i) labelFile(tmp_ / paths[i], i + 1);

  for (const std::string& root : {tmp_ / "t", tmp_ / "t/"}) {
    const ToolResult r = fake_.run({"-R", "-g", "-l", root});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> out = splitLines(r.out);
    ASSERT_EQ(out.size(), paths.size() + 1) << r.out;
    EXPECT_EQ(out[0].rfind("file: " + root + " label: ", 0), 0u) << out[0];
    std::vector<std::string> seen;
    for (const std::string& line : out) {
      const std::string path = line.substr(6, line.find(" label: ") - 6);
      EXPECT_EQ(path.find("//"), std::string::npos) << path;
      EXPECT_NE(path.substr(path.size() - 2), "/.") << path;
      // Every directory is shown before anything below it.
      const std::string parent = path.substr(0, path.rfind('/'));
      if (path != root) {
        EXPECT_TRUE(std::find(seen.begin(), seen.end(), parent) != seen.end() ||
                    parent + "/" == root)
            << path;
      }
      seen.push_back(path);
    }
    // The link to a directory is shown as a file (with its target's label) and
    // not walked into.
    const std::string link = (root.back() == '/' ? root : root + "/") + "linkdir";
    EXPECT_EQ(std::count(seen.begin(), seen.end(), link), 1);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                            [&](const std::string& p) { return p.rfind(link + "/", 0) == 0; }),
              0);
  }
}

TEST_F(LabelWalkE2eTest, NoDereferenceReadsAndRemovesTheLinksOwnLabel) {
  const std::string target = labelFile(tmp_ / "target", 1);
  ASSERT_EQ(symlink("target", (tmp_ / "link").c_str()), 0);
  const std::string own = labelFile(tmp_ / "link", 2, true);
  EXPECT_EQ(fake_.run({"-g", "-l", tmp_ / "link"}).out, shown(tmp_ / "link", target));
  EXPECT_EQ(fake_.run({"-H", "-g", "-l", tmp_ / "link"}).out, shown(tmp_ / "link", own));

  fake_.expect({"-H", "-d", "-l", tmp_ / "link"}, kDeleteRule);
  EXPECT_FALSE(hasLabel(tmp_ / "link", true));
  EXPECT_TRUE(hasLabel(tmp_ / "target"));
}

TEST_F(LabelWalkE2eTest, RemovalReportsFilesWithoutALabelAndGoesOn) {
  makeDirs(tmp_ / "t/sub");
  labelFile(tmp_ / "t", 1);
  labelFile(tmp_ / "t/sub", 2);
  labelFile(tmp_ / "t/sub/f", 3);
  writeTextFile(tmp_ / "t/bare", "");
  fake_.expect({"-d", "-R", "-l", tmp_ / "t"},
               kDeleteRule + "remove file label from xattr error, " + (tmp_ / "t/bare") +
                   " lremovexattr failed, No data available\n");
  for (const char* p : {"t", "t/sub", "t/sub/f"}) EXPECT_FALSE(hasLabel(tmp_ / p)) << p;
}

// The run happens as uid 65534, from copies of the tool and the test double in
// the temporary tree, so that it does not depend on that user reaching the
// build tree.
TEST_F(LabelWalkE2eTest, AnUnreadableDirectoryIsReportedAndSkipped) {
  makeDirs(tmp_ / "t/locked");
  writeTextFile(tmp_ / "t/locked/hidden", "");
  ASSERT_EQ(chmod(tmp_.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((tmp_ / "t").c_str(), 0755), 0);
  ASSERT_EQ(chmod((tmp_ / "t/locked").c_str(), 0700), 0);
  const std::string fakeDir = fakeLabelManagerDir();
  const std::string tool = fakeDir.substr(0, fakeDir.rfind('/')) + "/zorv-label-manager-tool";
  if (access(tool.c_str(), X_OK) != 0) GTEST_SKIP() << "no tool beside the test double: " << tool;
  ASSERT_EQ(runShell("cp -a '" + fakeDir + "' '" + tool + "' '" + tmp_.path() + "'"), 0);
  // The label model logs; the unprivileged run gets a log it may write.
  makeDirs(tmp_ / "log");
  ASSERT_EQ(chmod((tmp_ / "log").c_str(), 0777), 0);
  writeTextFile(tmp_ / "log/log.properties",
                "log4cpp.rootCategory=DEBUG, F\nlog4cpp.appender.F=FileAppender\n"
                "log4cpp.appender.F.fileName=" +
                    (tmp_ / "log/tool.log") + "\nlog4cpp.appender.F.layout=SimpleLayout\n");
  const int status =
      runShell("setpriv --reuid=65534 --regid=65534 --clear-groups env -i LD_LIBRARY_PATH='" +
               (tmp_ / "fake") + "' ZORV_LABEL_LOG_PROPERTIES='" + (tmp_ / "log/log.properties") +
               "' '" + (tmp_ / "zorv-label-manager-tool") + "' -R -g -l '" + (tmp_ / "t") + "' >'" +
               (tmp_ / "out") + "' 2>'" + (tmp_ / "err") + "'");
  EXPECT_EQ(readTextFile(tmp_ / "out"), "get file label failed, \n" + (tmp_ / "t/locked") +
                                            " opendir error: Permission denied\n");
  EXPECT_EQ(readTextFile(tmp_ / "err"), "");
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zorv_testing

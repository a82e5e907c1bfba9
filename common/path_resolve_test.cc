#include "common/path_resolve.h"

#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace fs = std::filesystem;

using zorv_testing::LogCapture;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(GetRealPathTest, ResolvesExistingPathsOrOnlyTheLinksDirectory) {
  ScopedTempDir dir;
  writeTextFile(dir / "data/file", "x");
  ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "alias").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "data/dangling").c_str()));
  // canonical() gives TMPDIR's own spelling, which may itself go through a link.
  const std::string data = fs::canonical(dir / "data").string();
  EXPECT_EQ(data + "/file", getRealPath(dir / "alias/../data/./file"));
  EXPECT_EQ(data + "/dangling", getLinkRealPath(dir / "alias/dangling"));

  LogCapture capture;
  EXPECT_EQ("", getRealPath(""));
  EXPECT_EQ("", getRealPath(dir / "data/dangling"));
  EXPECT_EQ("", getLinkRealPath(dir / "nodir/link"));
  EXPECT_EQ(
      (std::vector<std::string>{"WARN [getRealPath] path is empty",
                                "WARN [getRealPath] file is not exists, " + (dir / "data/dangling"),
                                "WARN [getRealPath] file is not exists, " + (dir / "nodir")}),
      capture.records());
}

TEST(FindFirstValidParentDirTest, DeepestExistingDirectory) {
  ScopedTempDir dir;
  makeDirs(dir / "a/b");
  EXPECT_EQ(dir / "a/b", findFirstValidParentDir(dir / "a/b/*.conf"));
  EXPECT_EQ(dir / "a", findFirstValidParentDir(dir / "a/lo*/x"));  // "lo" is a candidate
  EXPECT_EQ("/", findFirstValidParentDir("/zorv-no-such-dir/*"));
  EXPECT_EQ("", findFirstValidParentDir("zorv-no-such-dir/deeper/*"));
}

TEST(ExpandPathTest, AloneLetsFileSystemErrorsThrough) {
  ScopedTempDir dir;
  writeTextFile(dir / ".hidden.log", "");
  EXPECT_EQ(std::vector<fs::path>{dir / ".hidden.log"}, expandPath(dir / "*.log"));
  EXPECT_THROW(expandPath(dir / "missing/*"), fs::filesystem_error);

  // A name longer than any file system allows makes status() itself fail.
  const std::string tooLong = "/" + std::string(300, 'n');
  LogCapture capture;
  EXPECT_EQ("", getRealPath(tooLong + "/file"));
  EXPECT_EQ("", findFirstValidParentDir(tooLong + "/*"));
  const std::vector<std::string> lines = capture.records();
  ASSERT_EQ(2u, lines.size()) << capture.dump();
  EXPECT_EQ(
      0u, lines[0].find("ERROR [getRealPath] Resolve realpath failed for " + tooLong + "/file: "));
  EXPECT_EQ(0u, lines[1].find("ERROR [findFirstValidParentDir] filesystem error: "));
}

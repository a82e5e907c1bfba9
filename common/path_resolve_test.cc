#include "common/path_resolve.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace fs = std::filesystem;

using zorv_testing::LogCapture;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

// The spelling canonical() gives (TMPDIR may itself be reached through a link).
std::string real(const std::string& path) { return fs::canonical(path).string(); }

}  // namespace

TEST(GetRealPathTest, ResolvesExistingPathsOnly) {
  ScopedTempDir dir;
  writeTextFile(dir / "data/file", "x");
  ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "alias").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()));
  EXPECT_EQ(real(dir / "data/file"), getRealPath(dir / "alias/../data/./file"));

  LogCapture capture;
  EXPECT_EQ("", getRealPath(""));
  EXPECT_EQ("", getRealPath(dir / "dangling"));
  EXPECT_EQ(
      (std::vector<std::string>{"WARN [getRealPath] path is empty",
                                "WARN [getRealPath] file is not exists, " + (dir / "dangling")}),
      capture.records());
}

TEST(GetLinkRealPathTest, ResolvesTheDirectoryKeepsTheName) {
  ScopedTempDir dir;
  makeDirs(dir / "data");
  ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "x").c_str()));
  ASSERT_EQ(0, symlink("/nowhere", (dir / "data/link").c_str()));
  // The link itself dangles; only the directory holding it is resolved.
  EXPECT_EQ(real(dir / "data") + "/link", getLinkRealPath(dir / "x/link"));

  LogCapture capture;
  EXPECT_EQ("", getLinkRealPath(""));
  EXPECT_EQ("", getLinkRealPath(dir / "nodir/link"));
  EXPECT_EQ(std::vector<std::string>{"WARN [getRealPath] file is not exists, " + (dir / "nodir")},
            capture.records());
}

TEST(FindFirstValidParentDirTest, DeepestExistingDirectory) {
  ScopedTempDir dir;
  makeDirs(dir / "a/b");
  writeTextFile(dir / "a/file", "x");
  EXPECT_EQ(dir / "a/b", findFirstValidParentDir(dir / "a/b/*.conf"));
  // The text in front of the wildcard is taken whole: "lo" is a candidate.
  EXPECT_EQ(dir / "a", findFirstValidParentDir(dir / "a/lo*/x"));
  EXPECT_EQ(dir / "a", findFirstValidParentDir(dir / "a/file/?"));
  EXPECT_EQ("/", findFirstValidParentDir("/zorv-no-such-dir/*"));
  EXPECT_EQ("", findFirstValidParentDir("zorv-no-such-dir/deeper/*"));
}

TEST(PathResolutionTest, FileSystemErrorsAreLoggedNotThrown) {
  // A name longer than any file system allows makes status() itself fail.
  const std::string tooLong = "/" + std::string(300, 'n');
  LogCapture capture;
  EXPECT_EQ("", getRealPath(tooLong + "/file"));
  EXPECT_EQ("", findFirstValidParentDir(tooLong + "/*"));
  const std::vector<std::string> lines = capture.records();
  ASSERT_EQ(2u, lines.size()) << capture.dump();
  EXPECT_EQ(
      0u, lines[0].find("ERROR [getRealPath] Resolve realpath failed for " + tooLong + "/file: "));
  EXPECT_NE(std::string::npos, lines[0].find("File name too long"));
  EXPECT_EQ(0u, lines[1].find("ERROR [findFirstValidParentDir] filesystem error: "));
}

TEST(ExpandPathTest, MatchesTheLastComponentOnly) {
  ScopedTempDir dir;
  for (const char* name : {"a.log", "b.log", ".hidden.log", "c.txt", "x\\y"})
    writeTextFile(dir / name, "");
  auto sorted = [](std::vector<fs::path> paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
  };
  EXPECT_EQ((std::vector<fs::path>{dir / ".hidden.log", dir / "a.log", dir / "b.log"}),
            sorted(expandPath(dir / "*.log")));
  EXPECT_EQ(std::vector<fs::path>{dir / "x\\y"}, expandPath(dir / "x\\*"));
  EXPECT_THROW(expandPath(dir / "missing/*"), fs::filesystem_error);
}

TEST(IsParentPathTest, LexicalPrefixOfDirectories) {
  EXPECT_TRUE(isParentPath("/", "/etc"));
  EXPECT_FALSE(isParentPath("/etc", "/etc"));
  EXPECT_TRUE(isParentPath("/a/", "/a/"));
  EXPECT_FALSE(isParentPath("/a", "/ab"));
  EXPECT_TRUE(isParentPath("/a/b", "/a/b/../c"));  // ".." is not resolved
  EXPECT_TRUE(isParentPath("rel", (fs::current_path() / "rel/x").string()));
  EXPECT_FALSE(isParentPath("", "/etc"));
}

TEST(FormatPathTest, Tidies) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"/", "/"},
      {"//", "/"},
      {"/*", "/"},
      {"*", "*"},
      {"/a//b/*", "/a/b"},
      {"///a///b///", "/a/b"},
      {"/a/**", "/a/**"},
  };
  for (const auto& [path, tidy] : cases) EXPECT_EQ(tidy, formatPath(path)) << path;
}

TEST(ComparePathsTest, SignedByteOrderOfAbsoluteTexts) {
  std::vector<fs::path> list = {"/b", "/a/b", "/A", "/\xC3\xA9", "/a", "/a-b"};
  std::sort(list.begin(), list.end(), comparePaths);
  // Bytes of 0x80 and above order before every ASCII byte.
  EXPECT_EQ((std::vector<fs::path>{"/\xC3\xA9", "/A", "/a", "/a-b", "/a/b", "/b"}), list);
  EXPECT_FALSE(comparePaths("/a", "/a"));
  EXPECT_FALSE(comparePaths("x", fs::current_path() / "x"));
  EXPECT_TRUE(comparePaths("x", fs::current_path() / "y"));
}

TEST(IsFilesystemReadOnlyTest, WritableAndFailing) {
  ScopedTempDir dir;
  EXPECT_FALSE(isFilesystemReadOnly(dir.path().c_str()));
  LogCapture capture;
  EXPECT_FALSE(isFilesystemReadOnly((dir / "missing").c_str()));
  const std::string why = "statfs error, No such file or directory, " + (dir / "missing");
  EXPECT_EQ(std::vector<std::string>{"ERROR [isFilesystemReadOnly] " + why}, capture.records());
}

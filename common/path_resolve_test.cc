#include "common/path_resolve.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
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

std::vector<std::string> records(LogCapture& capture) {
  static const std::regex line(":[0-9]+\\]");
  std::vector<std::string> out;
  for (const std::string& r : capture.lines()) out.push_back(std::regex_replace(r, line, "]"));
  return out;
}

// Root ignores permission bits, so permission failures are provoked in a
// child that runs `body` as nobody; the text it returns comes back here.
std::string runAsNobody(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string result = "could not drop privileges";
    if (setgid(65534) == 0 && setuid(65534) == 0) result = body();
    ssize_t ignored = write(fds[1], result.data(), result.size());
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  std::string result;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) result.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return result;
}

// The same directory spelled the way canonical() spells it (TMPDIR may be a link).
std::string real(const std::string& path) { return fs::canonical(path).string(); }

}  // namespace

TEST(GetRealPathTest, ResolvesExistingPathsOnly) {
  ScopedTempDir dir;
  writeTextFile(dir / "data/file", "x");
  ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "alias").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()));

  EXPECT_EQ(real(dir / "data/file"), getRealPath(dir / "alias/file"));
  EXPECT_EQ(real(dir / "data/file"), getRealPath(dir / "alias/../data/./file"));

  LogCapture capture;
  EXPECT_EQ("", getRealPath(""));
  EXPECT_EQ("", getRealPath(dir / "dangling"));
  EXPECT_EQ("", getRealPath(dir / "data/file/under"));
  EXPECT_EQ((std::vector<std::string>{
                "WARN [getRealPath] path is empty",
                "WARN [getRealPath] file is not exists, " + (dir / "dangling"),
                "WARN [getRealPath] file is not exists, " + (dir / "data/file/under")}),
            records(capture));
}

TEST(GetRealPathTest, PermissionErrorIsLoggedNotThrown) {
  ScopedTempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  writeTextFile(dir / "locked/file", "x");
  ASSERT_EQ(0, chmod((dir / "locked").c_str(), 0700));
  LogCapture capture;
  const std::string out = runAsNobody([&] {
    std::string got = getRealPath(dir / "locked/file");
    return got + "|" + (records(capture).empty() ? "" : records(capture).back());
  });
  EXPECT_EQ(0u, out.find("|ERROR [getRealPath] Resolve realpath failed for " +
                         (dir / "locked/file") + ": "))
      << out;
  EXPECT_NE(std::string::npos, out.find("Permission denied")) << out;
}

TEST(GetLinkRealPathTest, ResolvesTheDirectoryKeepsTheName) {
  ScopedTempDir dir;
  makeDirs(dir / "data");
  ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "x").c_str()));
  ASSERT_EQ(0, symlink("/nowhere", (dir / "data/link").c_str()));

  // The link itself is dangling; only the directory holding it is resolved.
  EXPECT_EQ(real(dir / "data") + "/link", getLinkRealPath(dir / "x/link"));
  EXPECT_EQ(real(dir / "data") + "/missing", getLinkRealPath(dir / "x/./missing"));

  LogCapture capture;
  EXPECT_EQ("", getLinkRealPath(""));
  EXPECT_TRUE(records(capture).empty());
  EXPECT_EQ("", getLinkRealPath(dir / "nodir/link"));
  EXPECT_EQ(std::vector<std::string>{"WARN [getRealPath] file is not exists, " + (dir / "nodir")},
            records(capture));
}

TEST(FindFirstValidParentDirTest, DeepestExistingDirectory) {
  ScopedTempDir dir;
  makeDirs(dir / "a/b");
  writeTextFile(dir / "a/file", "x");
  ASSERT_EQ(0, symlink((dir / "a/b").c_str(), (dir / "a/blink").c_str()));

  EXPECT_EQ(dir / "a/b", findFirstValidParentDir(dir / "a/b/*.conf"));
  EXPECT_EQ(dir / "a/b", findFirstValidParentDir(dir / "a/b"));
  // The text in front of the wildcard is taken whole: "lo" is a candidate.
  EXPECT_EQ(dir / "a", findFirstValidParentDir(dir / "a/lo*/x"));
  EXPECT_EQ(dir / "a", findFirstValidParentDir(dir / "a/file/?"));
  EXPECT_EQ(dir / "a/blink", findFirstValidParentDir(dir / "a/blink/x?"));
  EXPECT_EQ("/", findFirstValidParentDir("/zorv-no-such-dir/*"));
  EXPECT_EQ("", findFirstValidParentDir("zorv-no-such-dir/deeper/*"));
  EXPECT_EQ("", findFirstValidParentDir(""));
}

TEST(FindFirstValidParentDirTest, PermissionErrorIsLoggedNotThrown) {
  ScopedTempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  makeDirs(dir / "locked/sub");
  ASSERT_EQ(0, chmod((dir / "locked").c_str(), 0700));
  LogCapture capture;
  const std::string out = runAsNobody([&] {
    std::string got = findFirstValidParentDir(dir / "locked/sub/*");
    return got + "|" + (records(capture).empty() ? "" : records(capture).back());
  });
  EXPECT_EQ(0u, out.find("|ERROR [findFirstValidParentDir] filesystem error: ")) << out;
}

TEST(ExpandPathTest, MatchesTheLastComponentOnly) {
  ScopedTempDir dir;
  for (const char* name : {"a.log", "b.log", ".hidden.log", "c.txt", "x\\y"})
    writeTextFile(dir / name, "");
  makeDirs(dir / "sub.log");

  auto names = [](const std::vector<fs::path>& paths) {
    std::vector<std::string> out;
    for (const fs::path& p : paths) out.push_back(p.string());
    std::sort(out.begin(), out.end());
    return out;
  };
  EXPECT_EQ((std::vector<std::string>{dir / ".hidden.log", dir / "a.log", dir / "b.log",
                                      dir / "sub.log"}),
            names(expandPath(dir / "*.log")));
  EXPECT_EQ((std::vector<std::string>{dir / "a.log", dir / "b.log"}),
            names(expandPath(dir / "[ab].log")));
  EXPECT_EQ(std::vector<std::string>{dir / "x\\y"}, names(expandPath(dir / "x\\*")));
  EXPECT_TRUE(expandPath(dir / "*.none").empty());
  EXPECT_THROW(expandPath(dir / "missing/*"), fs::filesystem_error);
}

TEST(IsParentPathTest, LexicalPrefixOfDirectories) {
  EXPECT_TRUE(isParentPath("/", "/etc"));
  EXPECT_FALSE(isParentPath("/etc", "/etc"));
  EXPECT_TRUE(isParentPath("/a/", "/a/"));
  EXPECT_TRUE(isParentPath("/a", "/a/b"));
  EXPECT_FALSE(isParentPath("/a", "/ab"));
  EXPECT_FALSE(isParentPath("/a/b", "/a"));
  EXPECT_TRUE(isParentPath("/a/b", "/a/b/../c"));  // ".." is not resolved
  EXPECT_TRUE(isParentPath("rel", (fs::current_path() / "rel/x").string()));
  EXPECT_FALSE(isParentPath("", "/etc"));
}

TEST(FormatPathTest, Tidies) {
  EXPECT_EQ("", formatPath(""));
  EXPECT_EQ("/", formatPath("/"));
  EXPECT_EQ("/", formatPath("//"));
  EXPECT_EQ("/", formatPath("/*"));
  EXPECT_EQ("*", formatPath("*"));
  EXPECT_EQ("/a", formatPath("/a/"));
  EXPECT_EQ("/a/b", formatPath("/a//b/*"));
  EXPECT_EQ("/a/b", formatPath("///a///b///"));
  EXPECT_EQ("/a/**", formatPath("/a/**"));
  EXPECT_EQ("/a/b*", formatPath("/a/b*"));
  EXPECT_EQ("a", formatPath("a/*"));
}

TEST(ComparePathsTest, SignedByteOrder) {
  EXPECT_TRUE(comparePaths("/a", "/a/b"));
  EXPECT_TRUE(comparePaths("/a/b", "/b"));
  EXPECT_FALSE(comparePaths("/b", "/a"));
  EXPECT_FALSE(comparePaths("/a", "/a"));
  // Bytes of 0x80 and above order before every ASCII byte.
  EXPECT_TRUE(comparePaths("/\xC3\xA9", "/A"));
  EXPECT_FALSE(comparePaths("/A", "/\xC3\xA9"));
  EXPECT_TRUE(comparePaths("/a/\xE2\x82\xAC", "/a/ "));
  // Relative paths are ordered as their absolute form, without normalising.
  EXPECT_TRUE(comparePaths("/", "x"));
  EXPECT_FALSE(comparePaths("x", (fs::current_path() / "x")));
  EXPECT_TRUE(comparePaths("x", (fs::current_path() / "y")));

  std::vector<fs::path> list = {"/b", "/a/b", "/A", "/\xC3\xA9", "/a", "/a-b"};
  std::sort(list.begin(), list.end(), comparePaths);
  EXPECT_EQ((std::vector<fs::path>{"/\xC3\xA9", "/A", "/a", "/a-b", "/a/b", "/b"}), list);
}

TEST(IsFilesystemReadOnlyTest, WritableAndFailing) {
  ScopedTempDir dir;
  EXPECT_FALSE(isFilesystemReadOnly(dir.path().c_str()));
  LogCapture capture;
  EXPECT_FALSE(isFilesystemReadOnly((dir / "missing").c_str()));
  EXPECT_EQ(std::vector<std::string>{"ERROR [isFilesystemReadOnly] statfs error, No such file or "
                                     "directory, " +
                                     (dir / "missing")},
            records(capture));
}

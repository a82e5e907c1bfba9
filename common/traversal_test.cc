#include "common/traversal.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace fs = std::filesystem;

using zorv_testing::LogCapture;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

const std::string kTag = "ERROR [traverseDirectory] ";

// The walk done the plain way, one directory at a time with opendir, readdir
// and lstat: what traverseDirectory must list and log, line for line.
std::vector<std::string> oneByOneWalk(const std::string& root) {
  std::vector<std::string> out;
  std::vector<std::string> log;
  for (std::deque<std::string> queue = {root}; !queue.empty(); queue.pop_front()) {
    const std::string dir = queue.front();
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
      log.push_back(kTag + "Failed to open directory: " + dir + ", error: " + strerror(errno));
      continue;
    }
    out.push_back(dir);
    while (const dirent* entry = readdir(handle)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string child = dir + "/" + name;
      struct stat st {};
      if (lstat(child.c_str(), &st) != 0)
        log.push_back(kTag + "Failed to stat path: " + child + ", error: " + strerror(errno));
      else if (S_ISDIR(st.st_mode))
        queue.push_back(child);
      else if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode))
        out.push_back(child);
    }
    closedir(handle);
  }
  out.insert(out.end(), log.begin(), log.end());
  return out;
}

// traverseDirectory's listing followed by its log records, as oneByOneWalk gives them.
std::vector<std::string> walkAndLog(const std::string& root) {
  LogCapture capture;
  std::vector<std::string> out;
  EXPECT_EQ(0, traverseDirectory(root, out));
  std::vector<std::string> log = capture.records();
  out.insert(out.end(), log.begin(), log.end());
  return out;
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

}  // namespace

TEST(TraverseDirectoryTest, BreadthFirstWithoutFollowingLinks) {
  ScopedTempDir dir;
  const std::string root = dir / "root";
  writeTextFile(root + "/f1", "");
  writeTextFile(root + "/d1/d3/f4", "");
  writeTextFile(root + "/d2/d4/d5/f5", "");
  ASSERT_EQ(0, symlink((root + "/d1").c_str(), (root + "/d2/dirlink").c_str()));
  ASSERT_EQ(0, symlink((root + "/none").c_str(), (root + "/dangling").c_str()));
  ASSERT_EQ(0, mkfifo((root + "/d1/fifo").c_str(), 0600));
  const std::vector<std::string> got = walkAndLog(root);
  EXPECT_EQ(oneByOneWalk(root), got);
  EXPECT_EQ(11u, got.size()) << joinLines(got);  // both links, no fifo, nothing below the link
}

TEST(TraverseDirectoryTest, RootsAsGiven) {
  ScopedTempDir dir;
  writeTextFile(dir / "r/x/f", "");
  writeTextFile(dir / "file", "");
  std::vector<std::string> out;
  // One trailing slash is dropped before runs are collapsed, so "r//" keeps one.
  ASSERT_EQ(0, traverseDirectory(dir / "r//", out));
  EXPECT_EQ((std::vector<std::string>{dir / "r/", dir / "r/x", dir / "r/x/f"}), out);
  LogCapture capture;
  EXPECT_EQ(-1, traverseDirectory(dir / "file", out));
  EXPECT_EQ(-1, traverseDirectory(dir / "missing/", out));
  EXPECT_EQ((std::vector<std::string>{kTag + "Not a directory: " + (dir / "file"),
                                      kTag + "Directory does not exist: " + (dir / "missing") +
                                          ", error: No such file or directory"}),
            capture.records());
}

TEST(TraverseDirectoryTest, UnreadableDirectoriesInWideLevels) {
  // Enough directories on each level to be read several at a time, some of
  // them unreadable: listing and log must still follow the queue.
  ScopedTempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string root = dir / "root";
  for (int i = 0; i < 60; ++i) {
    const std::string d = root + "/d" + std::to_string(i);
    writeTextFile(d + "/f", "");
    if (i % 5 != 0) writeTextFile(d + "/sub/g", "");
    if (i % 10 == 3) chmod(d.c_str(), 0700);  // cannot be opened by others
    if (i % 7 == 1) chmod(d.c_str(), 0744);   // opened, but entries cannot be stat'ed
  }
  const std::string out = zorv_testing::runAsNobody(
      [&] { return joinLines(walkAndLog(root)) + "=====\n" + joinLines(oneByOneWalk(root)); });
  const size_t split = out.find("=====\n");
  ASSERT_NE(std::string::npos, split) << out;
  EXPECT_EQ(out.substr(split + 6), out.substr(0, split));
  EXPECT_NE(std::string::npos, out.find(kTag + "Failed to open directory: " + root +
                                        "/d3, error: Permission denied\n"));
  EXPECT_NE(std::string::npos,
            out.find(kTag + "Failed to stat path: " + root + "/d1/f, error: Permission denied\n"));
}

TEST(SortPathsTest, ExpandsStarsOnlyInSignedByteOrder) {
  ScopedTempDir dir;
  for (const char* name : {"a/x2", "a/x1", "a/\xC3\xA9", "a/Z"}) writeTextFile(dir / name, "");
  EXPECT_EQ((std::vector<std::string>{dir / "a", dir / "a/x1", dir / "a/x2", dir / "a/x?"}),
            sortPaths({dir / "a/x*", dir / "a/x?", dir / "a", dir / "a/none*"}));
  EXPECT_EQ((std::vector<std::string>{dir / "a/\xC3\xA9", dir / "a/Z", dir / "a/x1", dir / "a/x2"}),
            sortPaths({dir / "a/*"}));
  EXPECT_THROW(sortPaths({dir / "a", dir / "missing/*"}), fs::filesystem_error);
}

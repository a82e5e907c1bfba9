#include "common/traversal.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
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

// Sets an environment variable and restores it on the way out.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    const char* old = getenv(name);
    hadValue_ = old != nullptr;
    if (hadValue_) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (hadValue_)
      setenv(name_, old_.c_str(), 1);
    else
      unsetenv(name_);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  bool hadValue_ = false;
  std::string old_;
};

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

// The walk done the plain way, one directory at a time with opendir, readdir
// and lstat: what traverseDirectory must list and log, line for line.
void oneByOneWalk(const std::string& root, std::vector<std::string>& out,
                  std::vector<std::string>& log) {
  std::deque<std::string> queue = {root};
  for (; !queue.empty(); queue.pop_front()) {
    const std::string dir = queue.front();
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
      log.push_back("ERROR [traverseDirectory] Failed to open directory: " + dir +
                    ", error: " + strerror(errno));
      continue;
    }
    out.push_back(dir);
    while (const dirent* entry = readdir(handle)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string child = dir + "/" + name;
      struct stat st {};
      if (lstat(child.c_str(), &st) != 0) {
        log.push_back("ERROR [traverseDirectory] Failed to stat path: " + child +
                      ", error: " + strerror(errno));
      } else if (S_ISDIR(st.st_mode)) {
        queue.push_back(child);
      } else if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) {
        out.push_back(child);
      }
    }
    closedir(handle);
  }
}

// Checks the breadth-first shape of a walk: each listed directory is
// followed by its own non-directory entries only, and directories come in
// order of depth.
void expectBreadthFirst(const std::vector<std::string>& out) {
  std::string current;
  size_t depth = 0;
  for (const std::string& path : out) {
    struct stat st {};
    ASSERT_EQ(0, lstat(path.c_str(), &st)) << path;
    if (S_ISDIR(st.st_mode)) {
      const size_t d = std::count(path.begin(), path.end(), '/');
      EXPECT_GE(d, depth) << path << " listed after a deeper directory";
      depth = d;
      current = path;
      continue;
    }
    EXPECT_EQ(current, fs::path(path).parent_path().string()) << path;
  }
}

}  // namespace

TEST(TraverseDirectoryTest, WalksBreadthFirstWithoutFollowingLinks) {
  ScopedTempDir dir;
  const std::string root = dir / "root";
  writeTextFile(root + "/f1", "");
  writeTextFile(root + "/d1/f2", "");
  writeTextFile(root + "/d1/d3/f4", "");
  writeTextFile(root + "/d2/d4/d5/f5", "");
  ASSERT_EQ(0, symlink((root + "/d1").c_str(), (root + "/d2/dirlink").c_str()));
  ASSERT_EQ(0, symlink((root + "/none").c_str(), (root + "/dangling").c_str()));
  ASSERT_EQ(0, mkfifo((root + "/d1/fifo").c_str(), 0600));

  std::vector<std::string> out = {"kept"};
  LogCapture capture;
  ASSERT_EQ(0, traverseDirectory(root, out));
  EXPECT_TRUE(records(capture).empty()) << capture.dump();

  ASSERT_FALSE(out.empty());
  EXPECT_EQ("kept", out[0]);  // appended to, never cleared
  out.erase(out.begin());
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(root, out[0]);
  expectBreadthFirst(out);
  const std::set<std::string> expected = {root,
                                          root + "/f1",
                                          root + "/dangling",
                                          root + "/d1",
                                          root + "/d1/f2",
                                          root + "/d1/d3",
                                          root + "/d1/d3/f4",
                                          root + "/d2",
                                          root + "/d2/d4",
                                          root + "/d2/d4/d5",
                                          root + "/d2/d4/d5/f5",
                                          root + "/d2/dirlink"};
  EXPECT_EQ(expected, std::set<std::string>(out.begin(), out.end())) << joinLines(out);
  EXPECT_EQ(expected.size(), out.size()) << joinLines(out);
}

TEST(TraverseDirectoryTest, NormalisesTheRoot) {
  ScopedTempDir dir;
  writeTextFile(dir / "r/x/f", "");

  std::vector<std::string> out;
  ASSERT_EQ(0, traverseDirectory(dir / "r/", out));
  EXPECT_EQ((std::vector<std::string>{dir / "r", dir / "r/x", dir / "r/x/f"}), out);

  out.clear();
  ASSERT_EQ(0, traverseDirectory(dir.path() + "//r//x", out));
  EXPECT_EQ((std::vector<std::string>{dir / "r/x", dir / "r/x/f"}), out);

  // Only one trailing slash is dropped before runs are collapsed; children
  // are still written with a single slash.
  out.clear();
  ASSERT_EQ(0, traverseDirectory(dir / "r//", out));
  EXPECT_EQ((std::vector<std::string>{dir / "r/", dir / "r/x", dir / "r/x/f"}), out);

  // A link given as the root is followed; its entries are listed under it.
  ASSERT_EQ(0, symlink((dir / "r").c_str(), (dir / "alias").c_str()));
  out.clear();
  ASSERT_EQ(0, traverseDirectory(dir / "alias", out));
  EXPECT_EQ((std::vector<std::string>{dir / "alias", dir / "alias/x", dir / "alias/x/f"}), out);
}

TEST(TraverseDirectoryTest, UnusableRoots) {
  ScopedTempDir dir;
  writeTextFile(dir / "file", "");
  std::vector<std::string> out = {"kept"};
  LogCapture capture;
  EXPECT_EQ(-1, traverseDirectory(dir / "file", out));
  EXPECT_EQ(-1, traverseDirectory(dir / "missing/", out));
  EXPECT_EQ(-1, traverseDirectory("", out));
  EXPECT_EQ(-1, traverseDirectory("/" + std::string(4096, 'a'), out));
  EXPECT_EQ(std::vector<std::string>{"kept"}, out);
  EXPECT_EQ((std::vector<std::string>{
                "ERROR [traverseDirectory] Not a directory: " + (dir / "file"),
                "ERROR [traverseDirectory] Directory does not exist: " + (dir / "missing") +
                    ", error: No such file or directory",
                "ERROR [traverseDirectory] Directory does not exist: , error: No such file or "
                "directory",
                "ERROR [traverseDirectory] Path too long: /" + std::string(4096, 'a')}),
            records(capture));
}

TEST(TraverseDirectoryTest, UnreadableDirectoriesAreSkipped) {
  ScopedTempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string root = dir / "root";
  writeTextFile(root + "/locked/secret", "");
  writeTextFile(root + "/listonly/g", "");
  writeTextFile(root + "/open/h", "");
  ASSERT_EQ(0, chmod((root + "/locked").c_str(), 0700));    // cannot be opened by others
  ASSERT_EQ(0, chmod((root + "/listonly").c_str(), 0744));  // opened, entries not stat-able

  LogCapture capture;
  const std::string result = runAsNobody([&] {
    std::vector<std::string> out;
    const int rc = traverseDirectory(root, out);
    out.insert(out.begin(), "rc=" + std::to_string(rc));
    for (const std::string& r : records(capture)) out.push_back("log: " + r);
    return joinLines(out);
  });
  std::vector<std::string> lines = splitLines(result);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ("rc=0", lines[0]) << result;
  const std::set<std::string> got(lines.begin() + 1, lines.end());
  const std::set<std::string> expected = {
      root,
      root + "/listonly",
      root + "/open",
      root + "/open/h",
      "log: ERROR [traverseDirectory] Failed to open directory: " + root +
          "/locked, error: Permission denied",
      "log: ERROR [traverseDirectory] Failed to stat path: " + root +
          "/listonly/g, error: Permission denied"};
  EXPECT_EQ(expected, got) << result;
  EXPECT_EQ(expected.size() + 1, lines.size()) << result;
}

TEST(TraverseDirectoryTest, WideTreesComeOutAsAOneByOneWalk) {
  // Enough directories on each level to be read several at a time, with
  // unreadable ones among them: output and log must still follow the queue.
  ScopedTempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  const std::string root = dir / "root";
  for (int i = 0; i < 60; ++i) {
    const std::string d = root + "/d" + std::to_string(i);
    for (int f = 0; f < 3; ++f) writeTextFile(d + "/f" + std::to_string(f), "");
    if (i % 5 != 0) writeTextFile(d + "/sub/g", "");
    if (i % 9 == 0) {
      ASSERT_EQ(0, symlink(root.c_str(), (d + "/up").c_str()));
    }
    if (i % 10 == 3) {
      ASSERT_EQ(0, chmod(d.c_str(), 0700));
    }
    if (i % 7 == 1) {
      ASSERT_EQ(0, chmod(d.c_str(), 0744));
    }
  }
  ASSERT_EQ(0, mkfifo((root + "/d2/fifo").c_str(), 0600));

  LogCapture capture;
  const std::string result = runAsNobody([&] {
    std::vector<std::string> out;
    traverseDirectory(root, out);
    for (const std::string& r : records(capture)) out.push_back("log: " + r);
    std::vector<std::string> expected;
    std::vector<std::string> expectedLog;
    oneByOneWalk(root, expected, expectedLog);
    for (const std::string& r : expectedLog) expected.push_back("log: " + r);
    return joinLines(out) + "=====\n" + joinLines(expected);
  });
  const size_t split = result.find("=====\n");
  ASSERT_NE(std::string::npos, split) << result;
  const std::string got = result.substr(0, split);
  const std::string expected = result.substr(split + 6);
  EXPECT_NE(std::string::npos, expected.find("Failed to open directory")) << expected;
  EXPECT_NE(std::string::npos, expected.find("Failed to stat path")) << expected;
  EXPECT_EQ(expected, got);
}

TEST(TraverseDirectoryTest, StopsAtTheDirectoryCap) {
  // A hundred thousand directories take a minute to create and remove on a
  // disk, a second in memory: use a memory file system when there is one.
  std::unique_ptr<ScopedEnv> inMemory;
  struct statfs fs {};
  if (statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC && access("/dev/shm", W_OK) == 0)
    inMemory = std::make_unique<ScopedEnv>("TMPDIR", "/dev/shm");
  ScopedTempDir dir;
  inMemory.reset();
  const std::string root = dir / "wide";
  makeDirs(root);
  // The root and 100000 subdirectories: one more than the walk may read.
  const int rootFd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(rootFd, 0);
  for (int i = 0; i < 100000; ++i)
    ASSERT_EQ(0, mkdirat(rootFd, std::to_string(i).c_str(), 0755)) << i;
  close(rootFd);
  std::vector<std::string> out;
  LogCapture capture;
  EXPECT_EQ(0, traverseDirectory(root, out));
  EXPECT_EQ(100000u, out.size());
  EXPECT_EQ(root, out[0]);
  EXPECT_EQ(
      std::vector<std::string>{"ERROR [traverseDirectory] Reached maximum directory limit: 100000"},
      records(capture));
}

TEST(SortPathsTest, ExpandsStarsAndOrders) {
  ScopedTempDir dir;
  for (const char* name : {"a/x2", "a/x1", "a/y", "a/\xC3\xA9", "a/Z"})
    writeTextFile(dir / name, "");

  EXPECT_EQ((std::vector<std::string>{dir / "a", dir / "a/x1", dir / "a/x2", dir / "b"}),
            sortPaths({dir / "b", dir / "a/x*", dir / "a"}));
  // Only '*' expands; other pattern text stays as written.
  EXPECT_EQ((std::vector<std::string>{dir / "a", dir / "a/x?", dir / "b"}),
            sortPaths({dir / "b", dir / "a/x?", dir / "a"}));
  EXPECT_EQ((std::vector<std::string>{dir / "a/\xC3\xA9", dir / "a/Z", dir / "a/x1", dir / "a/x2",
                                      dir / "a/y"}),
            sortPaths({dir / "a/*"}));
  // Duplicates stay; a pattern without matches adds nothing.
  EXPECT_EQ((std::vector<std::string>{dir / "a", dir / "a", dir / "a/x1", dir / "a/x1"}),
            sortPaths({dir / "a/*1", dir / "a", dir / "a/none*", dir / "a/x*1", dir / "a"}));
  EXPECT_TRUE(sortPaths({}).empty());
}

TEST(SortPathsTest, UnreadablePatternDirectoryThrows) {
  ScopedTempDir dir;
  EXPECT_THROW(sortPaths({dir / "a", dir / "missing/*"}), fs::filesystem_error);
}

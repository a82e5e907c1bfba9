#include "common/pinned_walker.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "testing/test_util.h"

namespace {

using zorv::DirId;
using zorv::PinnedWalkVisitor;
using zorv::WalkEntry;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

// Records what the walk hands out, checks each entry is reachable through
// its directory handle, and enters every directory; `onVisit` may change the
// tree mid-walk.
class Recorder : public PinnedWalkVisitor {
 public:
  std::optional<DirId> visit(WalkEntry& entry) override {
    struct stat st;
    if (::fstatat(entry.dir->get(), entry.name(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      unreachable.insert(entry.path);
      return std::nullopt;
    }
    visited.insert(entry.path.substr(root.size()));
    if (onVisit) onVisit(entry.path.substr(root.size()));
    if (!S_ISDIR(st.st_mode)) return std::nullopt;
    return DirId{st.st_dev, st.st_ino};
  }
  void failed(Problem problem, const std::string& path, int) override {
    problems.push_back(std::to_string(static_cast<int>(problem)) + " " + path.substr(root.size()));
  }

  std::string root;
  std::function<void(const std::string&)> onVisit;
  std::set<std::string> visited;
  std::set<std::string> unreachable;
  std::vector<std::string> problems;
};

class PinnedWalkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char resolved[PATH_MAX];
    ASSERT_NE(nullptr, realpath(tmp_.path().c_str(), resolved));
    root_ = std::string(resolved) + "/tree";
    makeDirs(root_);
    recorder_.root = root_;
  }

  void walk(size_t openFrames = 64) {
    zorv::UniqueFd fd(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(fd);
    struct stat st;
    ASSERT_EQ(0, ::fstat(fd.get(), &st));
    zorv::walkPinned(fd.get(), root_, DirId{st.st_dev, st.st_ino}, recorder_, openFrames);
  }

  ScopedTempDir tmp_;
  std::string root_;
  Recorder recorder_;
};

// Deeper than the directories it may keep open: the closed ones are reopened
// on the way back, so siblings after a deep branch are still found, and links
// are never followed.
TEST_F(PinnedWalkerTest, FindsEverythingBeyondItsOpenDirectoriesWithoutFollowingLinks) {
  std::string deep = root_;
  std::set<std::string> expected;
  for (int i = 0; i < 12; ++i) {
    deep += "/d" + std::to_string(i);
    expected.insert(deep.substr(root_.size()));
  }
  makeDirs(deep);
  writeTextFile(deep + "/f", "x");
  writeTextFile(root_ + "/d0/late/g", "y");
  ASSERT_EQ(0, ::symlink(tmp_.path().c_str(), (root_ + "/up").c_str()));
  for (const char* more :
       {"/d0/d1/d2/d3/d4/d5/d6/d7/d8/d9/d10/d11/f", "/d0/late", "/d0/late/g", "/up"})
    expected.insert(more);
  walk(2);
  EXPECT_EQ(expected, recorder_.visited);
  EXPECT_TRUE(recorder_.problems.empty());
  EXPECT_TRUE(recorder_.unreachable.empty());
}

// A directory swapped after its parent was listed, for a link to elsewhere or
// for another directory, is not entered and is reported; nothing outside the
// tree is visited.
TEST_F(PinnedWalkerTest, ADirectorySwappedMidWalkIsNotEntered) {
  makeDirs(root_ + "/a/in");
  makeDirs(root_ + "/b/in");
  std::string outside = tmp_.path() + "/outside";
  writeTextFile(outside + "/secret", "s");
  recorder_.onVisit = [&](const std::string& path) {
    if (path == "/a") {
      ASSERT_EQ(0, ::rename((root_ + "/a").c_str(), (root_ + "/a.old").c_str()));
      ASSERT_EQ(0, ::symlink(outside.c_str(), (root_ + "/a").c_str()));
    } else if (path == "/b") {
      ASSERT_EQ(0, ::rename((root_ + "/b").c_str(), (root_ + "/b.old").c_str()));
      makeDirs(root_ + "/b/other");
    }
  };
  walk();
  for (const std::string& path : recorder_.visited) {
    EXPECT_EQ(std::string::npos, path.find("secret")) << path;
    EXPECT_EQ(std::string::npos, path.find("other")) << path;
  }
  std::vector<std::string> problems = recorder_.problems;
  std::sort(problems.begin(), problems.end());
  EXPECT_EQ((std::vector<std::string>{"0 /a", "1 /b"}), problems);
}

}  // namespace

#include "common/safe_path.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "testing/test_util.h"

namespace {

using zorv::LinkRule;
using zorv::PinnedEntry;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

constexpr uid_t kUser = 65534;

// "0 PATH NAME" for a resolved entry (its canonical path and its name in
// the pinned directory), else the negative errno.
std::string resolve(const std::string& path, LinkRule rule = LinkRule::kSafe,
                    bool followLast = true) {
  PinnedEntry entry;
  std::string error;
  int rc = zorv::resolvePinned(path, rule, followLast, &entry, &error);
  if (rc != 0) return std::to_string(rc);
  return "0 " + entry.path + " " + entry.name;
}

class SafePathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char resolved[PATH_MAX];
    ASSERT_NE(nullptr, realpath(tmp_.path().c_str(), resolved));
    base_ = resolved;
    // root-owned: /secret; user-owned: /home (with a file of the user's own);
    // sticky and open to all, owned by root: /shared.
    writeTextFile(base_ + "/secret/f", "x");
    writeTextFile(base_ + "/home/mine/f", "x");
    makeDirs(base_ + "/shared");
    ASSERT_EQ(0, chmod((base_ + "/shared").c_str(), 01777));
    ASSERT_EQ(0, chown((base_ + "/home").c_str(), kUser, kUser));
    ASSERT_EQ(0, chown((base_ + "/home/mine").c_str(), kUser, kUser));
    ASSERT_EQ(0, chown((base_ + "/home/mine/f").c_str(), kUser, kUser));
    link("secret", base_ + "/to-secret");           // root's directory
    link(base_ + "/secret", base_ + "/home/evil");  // user's directory, root's target
    link("mine/f", base_ + "/home/own");            // user's directory, user's target
    link("../evil/f", base_ + "/home/mine/hop");    // through the refused link
    link(base_ + "/secret/f", base_ + "/shared/user-link", kUser);
    link(base_ + "/secret/f", base_ + "/shared/root-link");
  }
  void link(const std::string& target, const std::string& at, uid_t owner = 0) {
    ASSERT_EQ(0, symlink(target.c_str(), at.c_str()));
    ASSERT_EQ(0, lchown(at.c_str(), owner, owner));
  }

  ScopedTempDir tmp_;
  std::string base_;
};

TEST_F(SafePathTest, FollowsOnlyLinksThatCannotLeadRootAstray) {
  const std::string& b = base_;
  EXPECT_EQ("0 " + b + "/secret/f f", resolve(b + "/to-secret/f"));
  EXPECT_EQ("0 " + b + "/home/mine/f f", resolve(b + "/home/own"));
  EXPECT_EQ("0 " + b + "/secret/f f", resolve(b + "/shared/root-link"));
  EXPECT_EQ(std::to_string(-ENOLINK), resolve(b + "/home/evil/f"));
  EXPECT_EQ(std::to_string(-ENOLINK), resolve(b + "/home/evil"));
  EXPECT_EQ(std::to_string(-ENOLINK), resolve(b + "/home/mine/hop"));
  EXPECT_EQ(std::to_string(-ENOLINK), resolve(b + "/shared/user-link"));
  // A link in the last place can be the entry itself; kNever follows none.
  EXPECT_EQ("0 " + b + "/home/evil evil", resolve(b + "/home/evil", LinkRule::kSafe, false));
  EXPECT_EQ(std::to_string(-ENOLINK), resolve(b + "/to-secret/f", LinkRule::kNever));
  EXPECT_EQ("0 " + b + "/secret/f f", resolve(b + "/secret/f", LinkRule::kNever));
}

TEST_F(SafePathTest, ResolvesDotsRelativePathsAndTheRoot) {
  EXPECT_EQ("0 / .", resolve("/"));
  EXPECT_EQ("0 / .", resolve("/.."));
  EXPECT_EQ("0 " + base_ + "/secret secret", resolve(base_ + "//home/../secret/./"));
  EXPECT_EQ("0 " + base_ + " .", resolve(base_ + "/secret/.."));
  ASSERT_EQ(0, chdir((base_ + "/secret").c_str()));
  EXPECT_EQ("0 " + base_ + "/secret/f f", resolve("f"));
  ASSERT_EQ(0, chdir("/"));
  EXPECT_EQ(std::to_string(-ENOENT), resolve(base_ + "/missing/f"));
  EXPECT_EQ(std::to_string(-ENOTDIR), resolve(base_ + "/secret/f/g"));
}

}  // namespace

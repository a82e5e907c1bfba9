#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"
#include "labelmgr/path_digest.h"

namespace zorv_testing {
namespace {

// The raw attribute of `path` itself (links not followed); "" when none.
std::string rawLabel(const std::string& path) {
  char buffer[256];
  ssize_t size = lgetxattr(path.c_str(), "security.zorv", buffer, sizeof buffer);
  return size < 0 ? "" : std::string(buffer, static_cast<size_t>(size));
}

class TreeLabelerTest : public LabelMgrTest {
 protected:
  void TearDown() override {
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
    LabelMgrTest::TearDown();
  }

  // Labels root_ through the library; the counts of its summary line, log in
  // log_. The result must say whether every file was labelled.
  std::string labelRoot(const std::vector<std::string>& excludes = {}) {
    LogCapture log;
    const int rc = addTagFullSystem(root_, excludes);
    log_ = log.dump();
    const size_t at = log_.find(" s: ");
    const bool allDone = log_.find(" 0 failed,") != std::string::npos;
    if (at == std::string::npos || (rc == 0) != allDone) return "failed: " + log_;
    return log_.substr(at + 4, log_.find('\n', at) - at - 4);
  }
  // Whether the log holds `text` exactly once.
  bool loggedOnce(const std::string& text) const {
    return log_.find(text) != std::string::npos && log_.find(text) == log_.rfind(text);
  }

  // Whether restore, which computes labels on its own, leaves `path` as it is.
  static bool asRestoreWouldLabel(const std::string& path) {
    const std::string before = rawLabel(path);
    return restoreSingleFileLabel(path) != "" && before == rawLabel(path);
  }

  bool mountHere(const char* source, const std::string& target, const char* type, long flags) {
    if (access(target.c_str(), F_OK) != 0) makeDirs(target);
    if (mount(source, target.c_str(), type, flags, type ? "size=1m" : nullptr) != 0) return false;
    mounts_.push_back(target);
    return true;
  }
  std::vector<std::string> mounts_;
  std::string log_;
};

TEST_F(TreeLabelerTest, LabelsOnceWithRulesExcludesAndLinksThemselves) {
  std::string tool = makeFile("bin/alpha-tool", 0755), conf = makeFile("etc/beta.conf");
  std::string excluded = makeFile("cache/deep/file"), excludedFile = makeFile("etc/skipped");
  std::string toolLink = root_ + "/bin/tool-link", outside = root_ + "/outside";
  ASSERT_EQ(0, symlink("alpha-tool", toolLink.c_str()));
  ASSERT_EQ(0, symlink(base_.c_str(), outside.c_str()));
  ASSERT_EQ(0, setFileTid(conf.c_str(), 7, 0));
  ASSERT_EQ(0, removexattr(conf.c_str(), "security.zorv"));

  EXPECT_EQ(0, getLabelSetStatus());
  // Excludes match after resolution: a trailing slash or ".." names the same.
  EXPECT_EQ(
      "7 seen (0 unchanged since the last run), 7 written, 0 failed, 0 mounts skipped, 2 excluded",
      labelRoot({root_ + "/etc/../cache/", excludedFile}));
  EXPECT_EQ(1, getLabelSetStatus());
  for (const std::string& path : {root_, root_ + "/bin", tool, conf})
    EXPECT_TRUE(asRestoreWouldLabel(path)) << path;
  EXPECT_EQ(7u, labelOf(conf).tid_) << "user-set rules apply";
  Label link, expectedLink;  // a link is labelled itself
  ASSERT_EQ(0, link.getFromXattr(toolLink, true));
  expectedLink.oid_ = policyOid(toolLink, 0);
  EXPECT_EQ(expectedLink.toString(), link.toString());
  for (const std::string& path : {base_, root_ + "/cache", excluded, excludedFile})
    EXPECT_EQ("", rawLabel(path)) << path;

  // A killed run's cache temporary goes, a live one's stays; nothing is rewritten.
  const std::string cache = base_ + "/state/label-tree.cache";
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(dead, waitpid(dead, nullptr, 0));
  const std::string abandoned = cache + ".tmp." + std::to_string(dead);
  const std::string inUse = cache + ".tmp." + std::to_string(getppid());
  writeTextFile(abandoned, "partial");
  writeTextFile(inUse, "partial");
  EXPECT_EQ(
      "7 seen (7 unchanged since the last run), 0 written, 0 failed, 0 mounts skipped, 2 excluded",
      labelRoot({root_ + "/cache", excludedFile}));
  EXPECT_NE(0, access(abandoned.c_str(), F_OK));
  EXPECT_EQ(0, access(inUse.c_str(), F_OK));
  ASSERT_EQ(0, setPkgId("alpha", 0x77));
  labelRoot();
  EXPECT_EQ(0x77u, labelOf(tool).oid_.pkg_) << "the cache passes over a changed package id";

  // Labels changed behind the cache's back, and a changed mode, are put right.
  ASSERT_EQ(0, removexattr(conf.c_str(), "security.zorv"));
  ASSERT_EQ(0, setxattr(tool.c_str(), "security.zorv", "bad", 3, 0));
  ASSERT_EQ(0, chmod(excludedFile.c_str(), 0755));
  EXPECT_EQ(
      "11 seen (8 unchanged since the last run), 3 written, 0 failed, 0 mounts skipped, 0 excluded",
      labelRoot());
  EXPECT_EQ(7u, labelOf(conf).tid_);
  for (const std::string& path : {tool, excludedFile})
    EXPECT_TRUE(asRestoreWouldLabel(path)) << path;
}

// The walk stays on the root's mount: another file system, a bind mount (same
// device, only the mount id differs) and a single file mounted over one in the
// tree are all left alone, even on a first run that labels before it stats.
TEST_F(TreeLabelerTest, StaysOnTheRootMount) {
  std::string readme = makeFile("share/doc/readme"), hosts = makeFile("etc/hosts");
  std::string outsideFile = base_ + "/outside-file";
  writeTextFile(outsideFile, "x");
  if (!mountHere("tmpfs", root_ + "/mnt", "tmpfs", 0))
    GTEST_SKIP() << "cannot mount tmpfs here: " << std::strerror(errno);
  std::string onTmpfs = makeFile("mnt/inner");
  ASSERT_TRUE(mountHere((root_ + "/share").c_str(), root_ + "/bind", nullptr, MS_BIND));
  ASSERT_TRUE(mountHere(outsideFile.c_str(), hosts, nullptr, MS_BIND));

  EXPECT_EQ(
      "5 seen (0 unchanged since the last run), 5 written, 0 failed, 3 mounts skipped, 0 excluded",
      labelRoot());
  EXPECT_TRUE(loggedOnce("not entering " + root_ + "/mnt: another mount")) << log_;
  for (const std::string& path : {outsideFile, onTmpfs, root_ + "/mnt"})
    EXPECT_EQ("", rawLabel(path)) << path;
  EXPECT_TRUE(asRestoreWouldLabel(readme)) << "labelled by its path in the bind mount";
}

// Deeper than PATH_MAX: every level is reached and the bottom file gets the
// label of its full path.
TEST_F(TreeLabelerTest, TreesDeeperThanPathMax) {
  const std::string level(50, 'd');
  std::vector<int> fds{open(root_.c_str(), O_RDONLY | O_DIRECTORY)};
  std::string path = root_;
  for (int i = 0; i < 100; ++i, path += "/" + level) {
    ASSERT_EQ(0, mkdirat(fds.back(), level.c_str(), 0755));
    fds.push_back(openat(fds.back(), level.c_str(), O_RDONLY | O_DIRECTORY));
  }
  const int leaf = openat(fds.back(), "leaf", O_CREAT | O_RDWR, 0644);
  ASSERT_GT(path.size(), static_cast<size_t>(PATH_MAX));
  EXPECT_EQ(
      "102 seen (0 unchanged since the last run), 102 written, 0 failed, 0 mounts skipped, 0 "
      "excluded",
      labelRoot());
  unsigned char value[128];
  const ssize_t size = fgetxattr(leaf, "security.zorv", value, sizeof value);
  ASSERT_GT(size, 0);
  EXPECT_EQ(policyOid(path + "/leaf", 0).toString(),
            Label().deserializeFromBuffer(value, size).oid_.toString());
  // The temporary tree's removal cannot reach this deep: undo it level by level.
  close(leaf);
  unlinkat(fds.back(), "leaf", 0);
  for (size_t i = fds.size() - 1; i > 0; --i) {
    close(fds[i]);
    unlinkat(fds[i - 1], level.c_str(), AT_REMOVEDIR);
  }
  close(fds[0]);
}

// Removes `name` in `dirfd` and everything below it, however deep.
void removeDeep(int parent, const char* name) {
  int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (fd < 0) {
    unlinkat(parent, name, 0);
    return;
  }
  DIR* dir = fdopendir(fd);
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.push_back(entry->d_name);
  for (const std::string& child : names) removeDeep(dirfd(dir), child.c_str());
  closedir(dir);
  unlinkat(parent, name, AT_REMOVEDIR);
}

// Hard links are labelled after the walk without holding a descriptor each,
// so a tree of them deeper than the descriptor limit is labelled whole.
TEST_F(TreeLabelerTest, HardLinksDeeperThanTheDescriptorLimit) {
  const std::string level(20, 'h');
  int dir = open(root_.c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < 600; ++i) {
    ASSERT_EQ(0, mkdirat(dir, level.c_str(), 0755));
    int next = openat(dir, level.c_str(), O_RDONLY | O_DIRECTORY);
    close(dir);
    dir = next;
    close(openat(dir, "a", O_CREAT | O_RDWR, 0644));
    ASSERT_EQ(0, linkat(dir, "a", dir, "b", 0));
  }
  close(dir);
  pid_t pid = fork();
  if (pid == 0) {
    const rlimit limit{384, 384};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(3);
    const std::string counts = labelRoot();
    _exit(counts.find("1201 seen") == 0 && counts.find(" 0 failed") != std::string::npos &&
                  getLabelSetStatus() == 1
              ? 0
              : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(0, status);
  int rootFd = open(root_.c_str(), O_RDONLY | O_DIRECTORY);
  removeDeep(rootFd, level.c_str());
  close(rootFd);
}

// A value a user sets while a run is labelling the tree must survive it: the
// run computes each batch under the labels lock and sees the new rule. The
// values are set once the run has begun, on hard-linked files, which a run
// labels only after the whole walk.
TEST_F(TreeLabelerTest, ValuesSetDuringARunAreKept) {
  for (int i = 0; i < 10000; ++i)
    makeFile("d" + std::to_string(i / 500) + "/f" + std::to_string(i));
  std::vector<std::string> late;
  for (int i = 0; i < 4; ++i) {
    late.push_back(makeFile("late/f" + std::to_string(i)));
    ASSERT_EQ(0, link(late.back().c_str(), (late.back() + ".2").c_str()));
  }
  pid_t pid = fork();
  if (pid == 0) _exit(addTagFullSystem(root_, {}) == 0 ? 0 : 1);
  while (!hasLabel(root_)) usleep(200);
  for (const std::string& file : late) EXPECT_EQ(0, setFileTid(file.c_str(), 7, 0));
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(0, status);
  for (const std::string& file : late) EXPECT_EQ(7u, labelOf(file).tid_) << file;
}

// Without the DAC capabilities, but still writing attributes, root meets mode 000.
bool dropDirectoryAccessOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  return syscall(SYS_capset, &header, data) == 0;
}

TEST_F(TreeLabelerTest, UnreadableDirectoryIsReportedOnceAndTheWalkGoesOn) {
  std::string hidden = makeFile("locked/hidden"), after = makeFile("zzz/after");
  std::string locked = root_ + "/locked";
  ASSERT_EQ(0, chmod(locked.c_str(), 0));
  // The child reports through its exit status (3: it could not drop them).
  pid_t pid = fork();
  if (pid == 0) {
    if (!dropDirectoryAccessOverride()) _exit(3);
    const std::string counts = labelRoot();
    const bool ok =
        counts ==
            "4 seen (0 unchanged since the last run), 4 written, 1 failed, 0 mounts skipped, 0 "
            "excluded" &&
        loggedOnce("cannot open directory " + locked + ": Permission denied") &&
        getLabelSetStatus() == 2;
    if (!ok) std::fprintf(stderr, "%s\n%s", counts.c_str(), log_.c_str());
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  chmod(locked.c_str(), 0755);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop capabilities";
  EXPECT_EQ(0, status) << "the child's run differed (see its output above)";
  EXPECT_NE("", rawLabel(locked)) << "the directory itself is labelled through its parent";
  EXPECT_EQ("", rawLabel(hidden));
  EXPECT_NE("", rawLabel(after));
}

// The walk's digest, one reused context per thread, must match restore's.
TEST(PathDigestTest, AgreesWithTheCommonHelper) {
  using zorv::labelmgr::sm3Last64Bits;
  EXPECT_EQ(0x297DA02B8F4BA8E0u, sm3Last64Bits("abc"));
  std::vector<std::string> inputs = {"", "/", std::string("a\0b", 3)};
  for (size_t length : {55, 56, 64, 65, 4097})
    inputs.push_back(std::string(length, static_cast<char>(0x80 + length % 64)));
  for (const std::string& text : inputs)
    EXPECT_EQ(getSM3HashLast64Bits(text), sm3Last64Bits(text)) << "length " << text.size();
}

}  // namespace
}  // namespace zorv_testing

#include "labelmgr/tree_labeler.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/change_bus.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/labelmgr_test_env.h"
#include "labelmgr/state_db.h"

namespace zorv_testing {
namespace {

namespace lm = zorv::labelmgr;

// The raw attribute of `path` itself (links not followed); "" when none.
std::string rawLabel(const std::string& path) {
  char buffer[256];
  ssize_t size = lgetxattr(path.c_str(), "security.zorv", buffer, sizeof buffer);
  return size < 0 ? "" : std::string(buffer, static_cast<size_t>(size));
}

std::string encode(const Label& label) {
  unsigned char buffer[128];
  size_t size = label.serializeToBuffer(buffer, sizeof buffer);
  return std::string(reinterpret_cast<char*>(buffer), size);
}

std::unique_ptr<lm::LabelPolicy> loadPolicy() {
  std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kExisting);
  return lm::LabelPolicy::load(db.get());
}

// The label the policy gives `path` as it is on disk now.
std::string expectedLabel(const lm::LabelPolicy& policy, const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return "no such file: " + path;
  return encode(policy.effectiveLabel(path, st));
}

lm::TreeLabelStats runTree(const std::string& root, std::vector<std::string> excludes = {},
                           const std::string& cacheFile = "") {
  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  lm::TreeLabelOptions options;
  options.excludes = std::move(excludes);
  options.cacheFile = cacheFile;
  options.progress = false;
  lm::TreeLabelStats stats;
  EXPECT_EQ(0, lm::labelTree(root, *policy, options, &stats));
  return stats;
}

class TreeLabelerTest : public LabelMgrTest {};

TEST_F(TreeLabelerTest, LabelsEveryEntryAsRestoreWouldAndOnlyOnce) {
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string conf = makeFile("etc/beta.conf");
  std::string readme = makeFile("share/doc/read me");
  std::string odd = makeFile(std::string("share/new\nline\xff\xfe"));
  std::string first = makeFile("share/a-hard");
  std::string second = root_ + "/share/z-hard";
  ASSERT_EQ(0, link(first.c_str(), second.c_str()));
  std::string toolLink = root_ + "/bin/tool-link";
  std::string dangling = root_ + "/dangling";
  std::string outside = root_ + "/outside";
  ASSERT_EQ(0, symlink("alpha-tool", toolLink.c_str()));
  ASSERT_EQ(0, symlink("/nonexistent/target", dangling.c_str()));
  ASSERT_EQ(0, symlink(base_.c_str(), outside.c_str()));
  std::string fifo = root_ + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  ASSERT_EQ(0, setFileTid(conf.c_str(), 7, 0));
  ASSERT_EQ(0, removexattr(conf.c_str(), "security.zorv"));

  auto listener = std::make_unique<lm::LabelChangeListener>();
  ASSERT_EQ(0, listener->subscribe("file label-tree"));
  EXPECT_EQ(0, getLabelSetStatus());
  ASSERT_EQ(0, addTagFullSystem(root_, {}));
  EXPECT_EQ(1, getLabelSetStatus());
  std::string summary;
  ASSERT_EQ(0, listener->receive(summary));
  // root, bin, alpha-tool, tool-link, etc, beta.conf, share, doc, read me,
  // the odd name, one of the two hard links, dangling, outside.
  EXPECT_EQ("file label-tree " + root_ + " 13 13", summary);

  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  for (const std::string& path : {root_, root_ + "/bin", tool, toolLink, conf, readme, odd,
                                  root_ + "/share/doc", dangling, outside}) {
    EXPECT_EQ(expectedLabel(*policy, path), rawLabel(path)) << path;
  }
  Label toolLabel = labelOf(tool);
  EXPECT_EQ(policyOid(tool, getSM3HashLast64Bits("alpha")).toString(), toolLabel.oid_.toString());
  EXPECT_EQ(toolLabel.oid_.toString(), toolLabel.sid_.toString());
  EXPECT_EQ(7u, labelOf(conf).tid_) << "user-set rules apply";
  EXPECT_NE(rawLabel(tool), rawLabel(toolLink)) << "a link is labelled itself";
  EXPECT_EQ("", rawLabel(fifo));
  EXPECT_EQ("", rawLabel(base_)) << "links are not followed out of the tree";
  EXPECT_EQ(expectedLabel(*policy, first), rawLabel(second)) << "the smallest name decides";

  // Restore computes the same labels.
  for (const std::string& path : {tool, conf, readme}) {
    std::string before = rawLabel(path);
    EXPECT_EQ(Label::fromString(restoreSingleFileLabel(path)).toString(), labelOf(path).toString());
    EXPECT_EQ(before, rawLabel(path)) << path;
  }

  lm::TreeLabelStats again = runTree(root_);
  EXPECT_EQ(13u, again.seen);
  EXPECT_EQ(0u, again.written);
  EXPECT_EQ(0u, again.failed);

  // The library call keeps its cache in the state directory and still sees
  // a package id set since.
  LogCapture log;
  ASSERT_EQ(0, addTagFullSystem(root_, {}));
  EXPECT_EQ(1u, log.count("13 seen (12 unchanged since the last run), 0 written")) << log.dump();
  ASSERT_EQ(0, setPkgId("alpha", 0x77));
  ASSERT_EQ(0, addTagFullSystem(root_, {}));
  EXPECT_EQ(0x77u, labelOf(tool).oid_.pkg_);
}

// The cache lets unchanged entries pass with a stat(), and nothing that
// changes a label slips through it: the attribute, the mode, the path, the
// dpkg database and the user-set values.
TEST_F(TreeLabelerTest, CachePassesOverOnlyWhatIsUnchanged) {
  std::string cache = base_ + "/tree.cache";
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string plain = makeFile("plain");
  std::string moved = makeFile("moved");
  std::string linked = makeFile("linked");
  ASSERT_EQ(0, link(linked.c_str(), (root_ + "/linked2").c_str()));
  // root, bin, alpha-tool, plain, moved, one of the links
  lm::TreeLabelStats first = runTree(root_, {}, cache);
  EXPECT_EQ(6u, first.seen);
  EXPECT_EQ(6u, first.written);
  lm::TreeLabelStats second = runTree(root_, {}, cache);
  EXPECT_EQ(0u, second.written);
  EXPECT_EQ(5u, second.cached) << "all but the hard-linked file";

  const char junk[] = "junk";
  ASSERT_EQ(0, lsetxattr(plain.c_str(), "security.zorv", junk, sizeof junk, 0));
  ASSERT_EQ(0, chmod(moved.c_str(), 0700));  // gains a SID
  std::string renamed = root_ + "/renamed";
  ASSERT_EQ(0, rename(moved.c_str(), renamed.c_str()));
  lm::TreeLabelStats third = runTree(root_, {}, cache);
  EXPECT_EQ(2u, third.written);
  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  EXPECT_EQ(expectedLabel(*policy, plain), rawLabel(plain));
  EXPECT_EQ(expectedLabel(*policy, renamed), rawLabel(renamed));

  // An installed package's file list now names `plain` (edited in place).
  std::string betaList = base_ + "/dpkg/info/beta:amd64.list";
  writeTextFile(betaList, readTextFile(betaList) + plain + "\n");
  EXPECT_EQ(1u, runTree(root_, {}, cache).written);
  EXPECT_EQ(getSM3HashLast64Bits("beta"), labelOf(plain).oid_.pkg_);
  // A user-set id changes alpha's, which owns bin and alpha-tool.
  ASSERT_EQ(0, setPkgId("alpha", 0x99));
  EXPECT_EQ(2u, runTree(root_, {}, cache).written);
  EXPECT_EQ(0x99u, labelOf(tool).oid_.pkg_);

  // A damaged cache is passed over with a warning.
  ASSERT_EQ(0, truncate(cache.c_str(), 40));
  LogCapture log;
  lm::TreeLabelStats fifth = runTree(root_, {}, cache);
  EXPECT_EQ(0u, fifth.cached);
  EXPECT_EQ(0u, fifth.written);
  EXPECT_EQ(1u, log.count("ignoring the damaged or foreign tree label cache " + cache));

  // What a run killed while saving left behind goes; a live run's file stays.
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(dead, waitpid(dead, nullptr, 0));
  std::string abandoned = cache + ".tmp." + std::to_string(dead);
  std::string inUse = cache + ".tmp." + std::to_string(getppid());
  writeTextFile(abandoned, "partial");
  writeTextFile(inUse, "partial");
  EXPECT_EQ(5u, runTree(root_, {}, cache).cached);
  EXPECT_NE(0, access(abandoned.c_str(), F_OK));
  EXPECT_EQ(0, access(inUse.c_str(), F_OK));
}

TEST_F(TreeLabelerTest, ExcludesAndUnusableRoots) {
  std::string kept = makeFile("etc/kept");
  std::string skippedFile = makeFile("etc/skipped");
  std::string inSkippedDir = makeFile("cache/deep/file");
  // Excludes are matched after resolution: a trailing slash or a detour
  // through ".." names the same directory.
  lm::TreeLabelStats stats = runTree(root_, {root_ + "/etc/../cache/", skippedFile});
  EXPECT_EQ(2u, stats.excluded);
  EXPECT_NE("", rawLabel(kept));
  EXPECT_EQ("", rawLabel(skippedFile));
  EXPECT_EQ("", rawLabel(root_ + "/cache"));
  EXPECT_EQ("", rawLabel(inSkippedDir));

  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  LogCapture log;
  lm::TreeLabelOptions options;
  EXPECT_EQ(-1, lm::labelTree(root_ + "/missing", *policy, options, nullptr));
  EXPECT_EQ(-1, lm::labelTree(kept, *policy, options, nullptr));
  EXPECT_EQ(-1, lm::labelTree("", *policy, options, nullptr));
  EXPECT_EQ(1u, log.count("cannot label the tree under " + kept + ": not a directory"))
      << log.dump();
  EXPECT_EQ(0, getLabelSetStatus()) << "a refused walk records nothing";
}

class TreeLabelerMountTest : public TreeLabelerTest {
 protected:
  void TearDown() override {
    for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
    TreeLabelerTest::TearDown();
  }
  bool mountHere(const char* source, const std::string& target, const char* type,
                 unsigned long flags, const char* data = nullptr) {
    makeDirs(target);
    if (mount(source, target.c_str(), type, flags, data) != 0) return false;
    mounts_.push_back(target);
    return true;
  }
  std::vector<std::string> mounts_;
};

TEST_F(TreeLabelerMountTest, StaysOnTheRootMount) {
  std::string readme = makeFile("share/doc/readme");
  if (!mountHere("tmpfs", root_ + "/mnt", "tmpfs", 0, "size=1m")) {
    GTEST_SKIP() << "cannot mount tmpfs here: " << std::strerror(errno);
  }
  std::string onTmpfs = makeFile("mnt/inner");
  // A bind mount shows the same device: only the mount id tells it apart.
  ASSERT_TRUE(mountHere((root_ + "/share").c_str(), root_ + "/bind", nullptr, MS_BIND));
  // A single file mounted over one in the tree, as container runtimes do: a
  // first run, which labels files before it stats them, must not touch it.
  std::string outsideFile = base_ + "/outside-file";
  writeTextFile(outsideFile, "x");
  std::string fileMount = makeFile("etc/hosts");
  ASSERT_EQ(0, mount(outsideFile.c_str(), fileMount.c_str(), nullptr, MS_BIND, nullptr));
  mounts_.push_back(fileMount);

  LogCapture log;
  lm::TreeLabelStats stats = runTree(root_);
  EXPECT_EQ(3u, stats.mountsSkipped);
  EXPECT_EQ("", rawLabel(outsideFile));
  EXPECT_EQ(1u, log.count("not entering " + root_ + "/mnt: another mount")) << log.dump();
  EXPECT_EQ("", rawLabel(onTmpfs));
  EXPECT_EQ("", rawLabel(root_ + "/mnt"));
  // Had the walk entered the bind mount, the file would carry the label of
  // its path there.
  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  EXPECT_EQ(expectedLabel(*policy, readme), rawLabel(root_ + "/bind/doc/readme"));

  std::string readOnly = root_ + "/ro";
  ASSERT_TRUE(mountHere("tmpfs", readOnly, "tmpfs", MS_RDONLY, "size=1m"));
  lm::TreeLabelOptions options;
  EXPECT_EQ(-1, lm::labelTree(readOnly, *policy, options, nullptr));
  EXPECT_TRUE(log.contains("cannot label the tree under " + readOnly + ": read-only file system"));
}

// Root reads every directory; without the two DAC capabilities (but still
// allowed to write security attributes) it meets a mode-000 directory as any
// other program would.
bool dropDirectoryAccessOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  return syscall(SYS_capset, &header, data) == 0;
}

TEST_F(TreeLabelerTest, UnreadableDirectoryIsReportedOnceAndTheWalkGoesOn) {
  std::string hidden = makeFile("locked/hidden");
  std::string after = makeFile("zzz/after");
  std::string locked = root_ + "/locked";
  ASSERT_EQ(0, chmod(locked.c_str(), 0));

  int pipeFds[2];
  ASSERT_EQ(0, pipe(pipeFds));
  pid_t pid = fork();
  if (pid == 0) {
    close(pipeFds[0]);
    if (!dropDirectoryAccessOverride()) _exit(3);
    LogCapture log;
    std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
    lm::TreeLabelOptions options;
    lm::TreeLabelStats stats;
    int rc = policy ? lm::labelTree(root_, *policy, options, &stats) : -2;
    std::string report =
        std::to_string(rc) + " " + std::to_string(stats.failed) + " " +
        std::to_string(log.count("cannot open directory " + locked + ": Permission denied"));
    (void)!write(pipeFds[1], report.data(), report.size());
    _exit(0);
  }
  close(pipeFds[1]);
  char buffer[64] = {};
  ssize_t got = read(pipeFds[0], buffer, sizeof buffer - 1);
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  chmod(locked.c_str(), 0755);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop capabilities";
  ASSERT_GT(got, 0);
  EXPECT_EQ("0 1 1", std::string(buffer));
  EXPECT_NE("", rawLabel(locked)) << "the directory itself is labelled through its parent";
  EXPECT_EQ("", rawLabel(hidden));
  EXPECT_NE("", rawLabel(after));
}

// Deeper than PATH_MAX and than the walker keeps directories open: every level
// is still reached and the bottom file gets the label of its full path.
TEST_F(TreeLabelerTest, TreesDeeperThanPathMax) {
  constexpr int kDepth = 100;
  const std::string level(50, 'd');  // 100 x 51 bytes
  std::vector<int> fds;
  std::string path = root_;
  fds.push_back(open(root_.c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < kDepth; ++i) {
    ASSERT_EQ(0, mkdirat(fds.back(), level.c_str(), 0755));
    fds.push_back(openat(fds.back(), level.c_str(), O_RDONLY | O_DIRECTORY));
    path += "/" + level;
  }
  int file = openat(fds.back(), "leaf", O_CREAT | O_RDWR, 0755);
  ASSERT_GE(file, 0);
  struct stat st;
  ASSERT_EQ(0, fstat(file, &st));
  path += "/leaf";
  ASSERT_GT(path.size(), static_cast<size_t>(PATH_MAX));
  std::string sibling = makeFile("sibling");

  lm::TreeLabelStats stats = runTree(root_);
  EXPECT_EQ(static_cast<uint64_t>(kDepth) + 3, stats.seen);  // root, levels, leaf, sibling
  EXPECT_EQ(0u, stats.failed);
  char buffer[256];
  ssize_t size = fgetxattr(file, "security.zorv", buffer, sizeof buffer);
  ASSERT_GT(size, 0);
  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  EXPECT_EQ(encode(policy->effectiveLabel(path, st)), std::string(buffer, size));
  EXPECT_EQ(0u, runTree(root_).written);

  // std::filesystem cannot remove what PATH_MAX hides; undo it level by level.
  close(file);
  unlinkat(fds.back(), "leaf", 0);
  for (int i = kDepth; i > 0; --i) {
    close(fds[i]);
    unlinkat(fds[i - 1], level.c_str(), AT_REMOVEDIR);
  }
  close(fds[0]);
}

// Progress goes to standard error only when it is a terminal, never to
// standard output.
TEST_F(TreeLabelerTest, ProgressOnlyOnATerminal) {
  makeFile("a/b/c");
  std::unique_ptr<lm::LabelPolicy> policy = loadPolicy();
  auto runWithStderr = [&](int fd) {
    int savedErr = dup(STDERR_FILENO);
    int savedOut = dup(STDOUT_FILENO);
    int outPipe[2];
    EXPECT_EQ(0, pipe2(outPipe, O_NONBLOCK));
    dup2(fd, STDERR_FILENO);
    dup2(outPipe[1], STDOUT_FILENO);
    lm::TreeLabelOptions options;
    EXPECT_EQ(0, lm::labelTree(root_, *policy, options, nullptr));
    dup2(savedErr, STDERR_FILENO);
    dup2(savedOut, STDOUT_FILENO);
    close(savedErr);
    close(savedOut);
    char buffer[16];
    EXPECT_LT(read(outPipe[0], buffer, sizeof buffer), 1) << "nothing on standard output";
    close(outPipe[0]);
    close(outPipe[1]);
  };

  int errPipe[2];
  ASSERT_EQ(0, pipe2(errPipe, O_NONBLOCK));
  runWithStderr(errPipe[1]);
  char buffer[512];
  EXPECT_LT(read(errPipe[0], buffer, sizeof buffer), 1) << "no progress into a pipe";
  close(errPipe[0]);
  close(errPipe[1]);

  int master = -1;
  int terminal = -1;
  ASSERT_EQ(0, openpty(&master, &terminal, nullptr, nullptr, nullptr));
  runWithStderr(terminal);
  ssize_t got = read(master, buffer, sizeof buffer - 1);
  ASSERT_GT(got, 0);
  std::string shown(buffer, static_cast<size_t>(got));
  EXPECT_NE(std::string::npos, shown.find("files labelled")) << shown;
  close(master);
  close(terminal);
}

}  // namespace
}  // namespace zorv_testing

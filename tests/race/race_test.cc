// The real tool against a user who owns the directories it works in: while it
// runs, a process of that user swaps a directory of the tree for a symbolic
// link to a root-owned directory outside it, over and over or once for good
// as soon as the run has reached it. Whatever the run does with the tree, no
// label outside it may appear, change or go away.
//
// Each case prints how many outside entries changed in each way of swapping
// (and, beside it, how many inside: a run that changes nothing at all would
// prove nothing), and passes only when no outside entry changed. A last case
// checks the plain rule for paths a user names: a link that the user planted
// is not followed, one in root's directory is. CTest runs the program twice:
// as it is, and under zorv-no-xattrat (ZORV_EXPECT_NO_XATTRAT=1), so that the
// library's way of working without the *xattrat calls meets the same attacks.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/tool_runner.h"
#include "label/label.h"
#include "testing/own_library_test.h"
#include "tests/race/swapper.h"

namespace {

using zorv_race::kUser;
using zorv_race::Swap;
using zorv_race::swapName;
using zorv_race::swapNames;
using zorv_race::Swapper;
using zorv_testing::runTool;
using zorv_testing::ToolResult;

constexpr char kAttribute[] = "security.zorv";
constexpr int kGetXattrAt = 464;  // the same number on every architecture

// Sizes: enough entries that a run takes long enough for the swaps to land.
constexpr int kPlainFiles = 700;   // f* and n* names in ROOT/u, each
constexpr int kLinkedFiles = 200;  // h*: one name in ROOT/a, one in ROOT/u
constexpr int kSubdirFiles = 200;  // ROOT/u/d/f*

using Value = std::optional<std::string>;  // an attribute, or none

Value attributeByPath(const std::string& path) {
  char value[512];
  const ssize_t size = lgetxattr(path.c_str(), kAttribute, value, sizeof value);
  if (size < 0) return errno == ENODATA ? Value() : Value("error " + std::to_string(errno));
  return std::string(value, size);
}

// The same through a descriptor opened beside `dirfd` without following
// anything, so a test cannot be fooled by a link of its own.
Value attributeByHandle(int dirfd, const std::string& name) {
  const int fd = openat(dirfd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return "open error " + std::to_string(errno);
  char value[512];
  const ssize_t size = fgetxattr(fd, kAttribute, value, sizeof value);
  const int error = errno;
  close(fd);
  if (size < 0) return error == ENODATA ? Value() : Value("error " + std::to_string(error));
  return std::string(value, size);
}

std::string encode(const Label& label) {
  unsigned char buffer[128];
  const size_t size = label.serializeToBuffer(buffer, sizeof buffer);
  return std::string(reinterpret_cast<char*>(buffer), size);
}

void makeDir(const std::string& path, uid_t owner) {
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path;
  ASSERT_EQ(chown(path.c_str(), owner, owner), 0) << path;
}

void makeFile(const std::string& path, uid_t owner) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  close(fd);
  ASSERT_EQ(chown(path.c_str(), owner, owner), 0) << path;
}

class RaceTest : public zorv_testing::OwnLibraryTest {
 protected:
  const std::string root_ = base_ + "/root";
  const std::string outside_ = base_ + "/outside";
  const std::string spare_ = base_ + "/spare";  // the user's: holds the link or the real ROOT/u
  std::map<std::string, std::string> preset_;   // outside entries' labels as built

  void SetUp() override {
    ASSERT_EQ(chmod(base_.c_str(), 0755), 0);  // the user must reach the tree
  }

  // Fresh trees for the next run: built the first time, afterwards only
  // relabelled as built (cheaper than making thousands of files again) and
  // the state forgotten.
  void freshTrees() {
    std::filesystem::remove_all(stateDir());
    if (preset_.empty()) return buildTrees();
    std::vector<std::string> entries{root_};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_))
      entries.push_back(entry.path().string());
    for (const std::string& entry : entries) lremovexattr(entry.c_str(), kAttribute);
    for (const std::string& entry : outsideEntries()) {
      auto preset = preset_.find(entry);
      if (preset == preset_.end()) {
        lremovexattr(entry.c_str(), kAttribute);
      } else {
        ASSERT_EQ(
            lsetxattr(entry.c_str(), kAttribute, preset->second.data(), preset->second.size(), 0),
            0);
      }
    }
  }

  // ROOT (the user's): a and b with f*, n* and h* files, u with f*, n*, a
  // subdirectory d and second names of a's h* files. OUTSIDE (root's): the
  // same names as ROOT/u, every other one carrying a label already. The
  // user's spare directory holds the link ROOT/u is swapped with.
  void buildTrees() {
    for (const std::string& dir : {root_, root_ + "/a", root_ + "/b", root_ + "/u", root_ + "/u/d"})
      ASSERT_NO_FATAL_FAILURE(makeDir(dir, kUser));
    makeDir(spare_, kUser);
    makeDir(outside_, 0);
    makeDir(outside_ + "/d", 0);
    ASSERT_EQ(symlink(outside_.c_str(), (spare_ + "/u").c_str()), 0);
    ASSERT_EQ(lchown((spare_ + "/u").c_str(), kUser, kUser), 0);
    for (int i = 0; i < kPlainFiles; ++i) {
      for (const char* name : {"/f", "/n"}) {
        const std::string leaf = name + std::to_string(i);
        makeFile(root_ + "/u" + leaf, kUser);
        makeFile(outside_ + leaf, 0);
        if (i < 100) makeFile(root_ + "/a" + leaf, kUser);
        if (i < 100) makeFile(root_ + "/b" + leaf, kUser);
      }
    }
    for (int i = 0; i < kLinkedFiles; ++i) {
      const std::string leaf = "/h" + std::to_string(i);
      makeFile(root_ + "/a" + leaf, kUser);
      ASSERT_EQ(link((root_ + "/a" + leaf).c_str(), (root_ + "/u" + leaf).c_str()), 0);
      makeFile(outside_ + leaf, 0);
    }
    for (int i = 0; i < kSubdirFiles; ++i) {
      const std::string leaf = "/d/f" + std::to_string(i);
      makeFile(root_ + "/u" + leaf, kUser);
      makeFile(outside_ + leaf, 0);
    }
    Label preset;
    preset.oid_ = Id{9, 9, 9};
    preset.tid_ = 0x77;
    const std::string value = encode(preset);
    int n = 0;
    for (const std::string& entry : outsideEntries()) {
      if (n++ % 2 == 0) {
        ASSERT_EQ(lsetxattr(entry.c_str(), kAttribute, value.data(), value.size(), 0), 0);
        preset_[entry] = value;
      }
    }
  }

  // OUTSIDE itself and everything in it.
  std::vector<std::string> outsideEntries() const {
    std::vector<std::string> entries{outside_};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(outside_))
      entries.push_back(entry.path().string());
    return entries;
  }

  // The label of `top` and of every entry below it, read by path and by
  // handle.
  using Labels = std::map<std::string, std::pair<Value, Value>>;
  static Labels labelsUnder(const std::string& top) {
    std::vector<std::string> entries{top};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top))
      entries.push_back(entry.path().string());
    Labels labels;
    for (const std::string& entry : entries) {
      const std::string dir = entry == top ? entry : entry.substr(0, entry.rfind('/'));
      const std::string name = entry == top ? "." : entry.substr(entry.rfind('/') + 1);
      const int dirfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      labels[entry] = {attributeByPath(entry), attributeByHandle(dirfd, name)};
      close(dirfd);
    }
    return labels;
  }

  // How many entries below `top` have another label than in `before`.
  static size_t changedSince(const std::string& top, const Labels& before) {
    size_t changed = 0;
    for (const auto& [entry, labels] : labelsUnder(top)) {
      auto earlier = before.find(entry);
      changed += earlier == before.end() || earlier->second != labels;
    }
    return changed;
  }

  Labels outsideLabels() const { return labelsUnder(outside_); }
  size_t changedSince(const Labels& before) const { return changedSince(outside_, before); }

  // The directories whose labels, or their entries' labels, tell the user
  // that the run has reached ROOT/u.
  std::vector<std::string> watched() const { return {root_ + "/u", root_ + "/u/d"}; }

  // Runs the tool with `args` on fresh trees, prepared by `prepare`, once
  // without swapping (which must change labels in the tree: else the attacks
  // prove nothing) and then while the user swaps ROOT/u in each way of
  // `swaps` (back and forth in several rounds, since each catches the run at
  // other moments). Prints, for each way, how many entries changed outside
  // and inside, and expects none outside.
  void attack(
      const std::string& scenario, const std::vector<Swap>& swaps,
      const std::vector<std::string>& args, const std::function<void()>& prepare = [] {}) {
    std::vector<Swap> ways{Swap::kNone};
    ways.insert(ways.end(), swaps.begin(), swaps.end());
    for (Swap swap : ways) {
      const int rounds = swap == Swap::kFlip ? 5 : 1;
      size_t changed = 0, entries = 0, changedInside = 0;
      long swapped = 0;
      std::string statuses, counts;
      const auto start = std::chrono::steady_clock::now();
      for (int round = 0; round < rounds; ++round) {
        ASSERT_NO_FATAL_FAILURE(freshTrees());
        ASSERT_NO_FATAL_FAILURE(prepare());
        const auto before = outsideLabels();
        const auto inside = labelsUnder(root_);
        Swapper swapper(swap, root_ + "/u", spare_ + "/u", watched());
        ASSERT_TRUE(swapper.started());
        const ToolResult run = runTool(args, {}, 60);
        swapped += swapper.stop();
        const size_t changedNow = changedSince(before);
        changed += changedNow;
        changedInside += changedSince(root_, inside);
        counts += (counts.empty() ? "" : ",") + std::to_string(changedNow);
        entries = before.size();
        statuses += (statuses.empty() ? "" : ",") + std::to_string(run.status);
      }
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      // Counts and exit statuses are listed per round.
      printf(
          "[race] %-26s %-23s outside entries changed: %s of %zu"
          " (inside: %zu; %ld swaps, exit %s, %.1f s)\n",
          scenario.c_str(), swapName(swap), counts.c_str(), entries, changedInside, swapped,
          statuses.c_str(), took.count());
      fflush(stdout);
      EXPECT_EQ(changed, 0u) << scenario << ", " << swapName(swap);
      if (swap == Swap::kNone) {
        EXPECT_GT(changedInside, 0u) << scenario << " changed nothing in the tree";
      }
    }
  }
};

// The wrapped run must really be without the calls; the plain one says what
// the kernel offers, so the printed counts can be told apart.
TEST(RaceMode, XattrAtCallsAreRefusedExactlyWhenWrapped) {
  errno = 0;
  syscall(kGetXattrAt, AT_FDCWD, "/", 0, "user.none", nullptr, 0);
  const bool refused = errno == ENOSYS;
  printf("[race] mode: *xattrat calls %s\n", refused ? "refused (fallback)" : "available");
  if (getenv("ZORV_EXPECT_NO_XATTRAT") != nullptr) {
    EXPECT_TRUE(refused);
  }
}

// Whole-tree labelling, with hard links whose second names are inside the
// swapped directory.
TEST_F(RaceTest, TreeLabellingLeavesTheOutsideAlone) {
  attack("tree labelling -a -s ROOT", {Swap::kFlip, Swap::kReached}, {"-a", "-s", root_});
}

TEST_F(RaceTest, PatternSetBelowTheSwappedDirectoryLeavesTheOutsideAlone) {
  attack("pattern set ROOT/u/*", {Swap::kEarly, Swap::kFlip, Swap::kReached},
         {"-P", "-a", "-t", root_ + "/u/*", "5"});
}

TEST_F(RaceTest, PatternSetAboveTheSwappedDirectoryLeavesTheOutsideAlone) {
  attack("pattern set ROOT/*/n*", {Swap::kEarly, Swap::kFlip, Swap::kReached},
         {"-P", "-a", "-t", root_ + "/*/n*", "5"});
}

// Undoing pattern rules relabels what they covered: by clearing the field and
// by deleting one rule.
TEST_F(RaceTest, PatternClearAndDeleteLeaveTheOutsideAlone) {
  auto setRules = [&] {
    ASSERT_EQ(runTool({"-P", "-a", "-t", root_ + "/u/*", "5"}).status, 0);
    ASSERT_EQ(runTool({"-P", "-a", "-t", root_ + "/*/n*", "6"}).status, 0);
    ASSERT_TRUE(attributeByPath(root_ + "/u/f1").has_value());
  };
  const std::vector<Swap> everyWay{Swap::kEarly, Swap::kFlip, Swap::kReached};
  attack("pattern clear -d -c tid", everyWay, {"-d", "-c", "tid"}, setRules);
  attack("pattern delete ROOT/u/*", everyWay, {"-P", "-d", "-t", root_ + "/u/*"}, setRules);
}

// An exact rule recorded on ROOT/u/f1 while it was a file of the tree; then
// the user makes that path lead outside, by swapping ROOT/u or by replacing
// the file itself with a link. Clearing and deleting the rule must not follow.
TEST_F(RaceTest, ExactRuleWhoseTargetBecameALinkIsNotFollowed) {
  const std::string target = root_ + "/u/f1";
  for (bool wholeDir : {true, false}) {
    for (bool clear : {true, false}) {
      ASSERT_NO_FATAL_FAILURE(freshTrees());
      const Value unset = attributeByPath(target);
      ASSERT_EQ(runTool({"-a", "-o", target, "1", "2", "3"}).status, 0);
      ASSERT_NE(attributeByPath(target), unset) << "the rule was not applied";
      const auto before = outsideLabels();
      const std::string replaced = zorv_testing::runAsNobody([&] {
        if (wholeDir) return std::string(swapNames(root_ + "/u", spare_ + "/u") ? "" : "exchange");
        return std::string(unlink(target.c_str()) == 0 &&
                                   symlink((outside_ + "/f1").c_str(), target.c_str()) == 0
                               ? ""
                               : "relink");
      });
      ASSERT_EQ(replaced, "");
      const ToolResult run = clear ? runTool({"-d", "-c", "oid"}) : runTool({"-d", "-o", target});
      const size_t changed = changedSince(before);
      printf("[race] exact rule %-16s %-23s outside entries changed: %zu of %zu (exit %d)\n",
             clear ? "-d -c oid" : "-d -o ROOT/u/f1",
             wholeDir ? "ROOT/u made a link" : "ROOT/u/f1 made a link", changed, before.size(),
             run.status);
      EXPECT_EQ(changed, 0u) << (wholeDir ? "ROOT/u" : "ROOT/u/f1") << " replaced, "
                             << (clear ? "cleared" : "deleted");
      if (wholeDir) {
        ASSERT_TRUE(swapNames(root_ + "/u", spare_ + "/u"));
      } else {
        ASSERT_EQ(unlink(target.c_str()), 0);
        ASSERT_NO_FATAL_FAILURE(makeFile(target, kUser));
      }
    }
  }
}

// A path that a user leads through a link of their own into root's files is
// refused with the usual message and changes nothing; a link in a directory
// of root's is followed wherever it points.
TEST_F(RaceTest, UserPlantedLinkIsRefusedAndRootsLinkIsFollowed) {
  ASSERT_NO_FATAL_FAILURE(freshTrees());
  const std::string home = base_ + "/home-u";
  makeDir(home, kUser);
  makeDir(home + "/own", kUser);
  makeFile(home + "/own/g", kUser);
  ASSERT_EQ(zorv_testing::runAsNobody([&] {
              return symlink(outside_.c_str(), (home + "/link").c_str()) == 0 ? "" : "symlink";
            }),
            "");
  const auto before = outsideLabels();
  const std::string planted = home + "/link/f1";
  zorv_testing::expectResult(runTool({"-a", "-o", planted, "1", "2", "3"}),
                             "set file oid error. " + planted + "\n", 1);
  EXPECT_EQ(changedSince(before), 0u);
  EXPECT_EQ(runTool({"-g", "-u", "-o", "--all"}).out.find(outside_), std::string::npos);

  makeDir(base_ + "/rootdir", 0);
  ASSERT_EQ(symlink(outside_.c_str(), (base_ + "/rootdir/out").c_str()), 0);
  ASSERT_EQ(symlink((home + "/own").c_str(), (base_ + "/rootdir/home").c_str()), 0);
  Label expected;
  expected.oid_ = Id{1, 2, 3};
  for (const auto& [through, file] : {std::pair{"/rootdir/out/f1", outside_ + "/f1"},
                                      std::pair{"/rootdir/home/g", home + "/own/g"}}) {
    zorv_testing::expectResult(runTool({"-a", "-o", base_ + through, "1", "2", "3"}),
                               "set file oid success. " + base_ + through + "\n");
    Label got;
    ASSERT_EQ(got.getFromXattr(file, true), 0) << file;
    EXPECT_EQ(got.oid_.toString(), expected.oid_.toString()) << file;
  }
}

}  // namespace

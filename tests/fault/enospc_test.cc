// Label and state writes on a file system that is full. A set that cannot be
// carried out must say so, leave every earlier label as it was and record no
// rule it did not apply; once there is room again the same command succeeds.
//
// The full file systems are small tmpfs mounts inside the test's temporary
// directory; where the machine allows no mounts the tests are skipped.
#include <sqlite3.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cli/tool_runner.h"
#include "tests/fault/fault_util.h"

namespace zorv_fault {
namespace {

using zorv_testing::expectResult;
using zorv_testing::runTool;
using zorv_testing::ToolResult;

const std::string kOid123 = "0000000000000001-0000000000000002-0000000000000003";
const std::string kOid456 = "0000000000000004-0000000000000005-0000000000000006";
// How the user-set listing shows OID 1-2-3 and 4-5-6.
const std::string kListed123 = ", oid : 0x0000000000000001-0x0000000000000002-0x0000000000000003\n";
const std::string kListed456 = ", oid : 0x0000000000000004-0x0000000000000005-0x0000000000000006\n";

// The raw attribute value, "" when there is none.
std::string rawLabel(const std::string& path) {
  char value[256];
  const ssize_t size = lgetxattr(path.c_str(), "security.zorv", value, sizeof value);
  return size > 0 ? std::string(value, static_cast<size_t>(size)) : "";
}

std::string oidOf(const std::string& path) {
  Label label;
  if (readLabel(path, &label) != LabelState::kPresent) return "";
  return label.oid_.toString();
}

// Each test starts with a small tmpfs mounted on base_/`mountName_`.
class FullFileSystemTest : public zorv_testing::OwnLibraryTest {
 protected:
  void SetUp() override {
    fs_ = std::make_unique<SmallFileSystem>(base_ + "/" + mountName_, mountOptions_);
    if (!fs_->error().empty()) GTEST_SKIP() << fs_->error();
  }

  std::string userSet(const char* field) { return runTool({"-g", "-u", field, "--all"}).out; }

  std::string mountName_ = "fs";
  std::string mountOptions_ = "size=4m,nr_inodes=256";
  std::unique_ptr<SmallFileSystem> fs_;  // unmounted before tmp_ goes
};

TEST_F(FullFileSystemTest, SingleFileSetsWithNoRoomForTheAttributeChangeNothing) {
  const std::string file = base_ + "/fs/app.conf";
  const std::string fresh = base_ + "/fs/new.conf";
  zorv_testing::writeTextFile(file, "x");
  zorv_testing::writeTextFile(fresh, "x");
  ASSERT_EQ(runTool({"-a", "-o", file, "1", "2", "3"}).status, 0);
  const std::string before = rawLabel(file);
  ASSERT_FALSE(before.empty());
  if (!fs_->fillAttributeSpace()) GTEST_SKIP() << fs_->error();

  expectResult(runTool({"-a", "-o", file, "4", "5", "6"}), "set file oid error. " + file + "\n", 1);
  expectResult(runTool({"-a", "-o", fresh, "4", "5", "6"}), "set file oid error. " + fresh + "\n",
               1);
  // A failed TID set still ends with 0.
  expectResult(runTool({"-a", "-t", file, "9"}), "set file tid error. " + file + "\n");

  EXPECT_EQ(rawLabel(file), before);
  EXPECT_EQ(rawLabel(fresh), "");
  EXPECT_EQ(userSet("-o"), file + kListed123);
  EXPECT_EQ(userSet("-t"), "No tid has been set for any file.\n");
  EXPECT_EQ(integrityCheck(database()), "ok");

  fs_->release();
  expectResult(runTool({"-a", "-o", file, "4", "5", "6"}), "set file oid success. " + file + "\n");
  EXPECT_EQ(oidOf(file), kOid456);
}

TEST_F(FullFileSystemTest, PatternSetWithNoRoomLeavesEveryLabelAndARerunFinishes) {
  std::vector<std::string> files;
  for (int i = 0; i < 50; ++i) {
    files.push_back(base_ + "/fs/dir/f" + std::to_string(i));
    zorv_testing::writeTextFile(files.back(), "");
  }
  const std::string pattern = base_ + "/fs/dir/*";
  ASSERT_EQ(runTool({"-P", "-a", "-o", pattern, "1", "2", "3"}).status, 0);
  if (!fs_->fillAttributeSpace()) GTEST_SKIP() << fs_->error();

  const std::vector<std::string> setOid{"-P", "-a", "-o", pattern, "4", "5", "6"};
  expectResult(runTool(setOid), "set file oid error. " + pattern + "\n", 1);
  for (const std::string& file : files) ASSERT_EQ(oidOf(file), kOid123) << file;
  EXPECT_EQ(integrityCheck(database()), "ok");

  fs_->release();
  expectResult(runTool(setOid), "set file oid success. " + pattern + "\n");
  for (const std::string& file : files) ASSERT_EQ(oidOf(file), kOid456) << file;
  EXPECT_EQ(userSet("-o"), pattern + kListed456);
}

// Entries that cannot be written are left as they were and are not taken as
// verified: the next run, with room again, labels them.
TEST_F(FullFileSystemTest, TreeLabellingWithNoRoomKeepsOldLabelsAndARerunFinishes) {
  const std::string root = base_ + "/fs/tree";
  for (int i = 0; i < 40; ++i)
    zorv_testing::writeTextFile(root + "/d" + std::to_string(i % 4) + "/f" + std::to_string(i), "");
  // An earlier label that no rule explains, which labelling would replace.
  const std::string old = root + "/d0/f0";
  Label earlier;
  earlier.oid_.pkg_ = 7;
  earlier.tid_ = 7;
  ASSERT_EQ(earlier.setToXattr(old, false), 0);
  if (!fs_->fillAttributeSpace()) GTEST_SKIP() << fs_->error();

  ToolResult r = runTool({"-a", "-s", root});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("set the label for files end"), std::string::npos) << r.out;
  Label label;
  ASSERT_EQ(readLabel(old, &label), LabelState::kPresent);
  EXPECT_EQ(label.toString(), earlier.toString());
  for (const std::string& entry : listTree(root)) {
    if (entry != old) {
      EXPECT_EQ(readLabel(entry, &label), LabelState::kAbsent) << entry;
    }
  }

  fs_->release();
  EXPECT_EQ(runTool({"-a", "-s", root}).status, 0);
  for (const std::string& entry : listTree(root)) {
    ASSERT_EQ(readLabel(entry, &label), LabelState::kPresent) << entry;
    EXPECT_EQ(label.oid_.pkg_, 0u) << entry;
    EXPECT_EQ(label.tid_, 0u) << entry;
  }
}

// The state database on a full file system, the labelled file elsewhere.
class FullStateTest : public FullFileSystemTest {
 protected:
  FullStateTest() {
    mountName_ = "state";
    mountOptions_ = "size=512k";
  }
  void SetUp() override {
    FullFileSystemTest::SetUp();
    if (IsSkipped()) return;
    file_ = base_ + "/files/app.conf";
    zorv_testing::writeTextFile(file_, "x");
    ASSERT_EQ(runTool({"-a", "-o", file_, "1", "2", "3"}).status, 0);
    before_ = rawLabel(file_);
  }

  // Fills the state file system, tries the set, gives the room back and
  // checks that nothing changed.
  void expectFailedSetChangesNothing() {
    ASSERT_TRUE(fs_->fillBlocks()) << fs_->error();
    expectResult(runTool({"-a", "-o", file_, "4", "5", "6"}), "set file oid error. " + file_ + "\n",
                 1);
    EXPECT_EQ(rawLabel(file_), before_) << "now " << oidOf(file_);
    fs_->release();
    EXPECT_EQ(userSet("-o"), file_ + kListed123);
    EXPECT_EQ(integrityCheck(database()), "ok");
  }

  std::string file_;
  std::string before_;
};

TEST_F(FullStateTest, SetWithNoRoomForTheStateChangesNothing) { expectFailedSetChangesNothing(); }

// While another connection keeps the database open, its log files already
// exist: opening and beginning succeed on the full file system and only the
// commit fails, after the label was written; the set must put it back.
TEST_F(FullStateTest, SetWhoseCommitFailsChangesNothing) {
  sqlite3* reader = nullptr;
  ASSERT_EQ(sqlite3_open_v2(database().c_str(), &reader, SQLITE_OPEN_READWRITE, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(reader, "SELECT count(*) FROM file_rule", nullptr, nullptr, nullptr),
            SQLITE_OK);
  expectFailedSetChangesNothing();
  sqlite3_close(reader);
}

}  // namespace
}  // namespace zorv_fault

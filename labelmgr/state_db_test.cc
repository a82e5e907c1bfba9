#include "labelmgr/state_db.h"

#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

namespace fs = std::filesystem;

// The state directory on a small tmpfs of its own, mounted in a namespace of
// this process's own so that a dying test leaves no mount behind.
class StateFileSystemTest : public LabelMgrTest {
 protected:
  void SetUp() override {
    LabelMgrTest::SetUp();
    state_ = base_ + "/state";
    file_ = makeFile("etc/app.conf");
    makeDirs(state_);
    if (unshare(CLONE_NEWNS) == 0) mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (mount("zorv-state", state_.c_str(), "tmpfs", 0, "size=512k,nr_inodes=64,mode=0700") != 0)
      GTEST_SKIP() << "cannot mount a tmpfs, errno " << errno;
  }
  void TearDown() override {
    if (!state_.empty()) umount2(state_.c_str(), MNT_DETACH);
  }

  // A fresh database with a rule and a package id, left in WAL mode as this
  // library leaves it, or in the rollback journal as a foreign writer might.
  void record(const std::string& journal) {
    for (const auto& entry : fs::directory_iterator(state_)) fs::remove_all(entry.path());
    ASSERT_EQ(0, setFileOid(file_.c_str(), 0, ZORV_ID{1, 2, 3}));
    ASSERT_EQ(0, setPkgId("alpha", 0x42));
    if (journal == "wal") return;
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(stateDb().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, ("PRAGMA journal_mode=" + journal).c_str(), nullptr,
                                      nullptr, nullptr));
    sqlite3_close(db);
  }

  std::string journalMode() {
    sqlite3* db = nullptr;
    std::string mode = "?";
    sqlite3_open_v2(stateDb().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* query = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA journal_mode", -1, &query, nullptr) == SQLITE_OK &&
        sqlite3_step(query) == SQLITE_ROW)
      mode = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    sqlite3_finalize(query);
    sqlite3_close(db);
    return mode;
  }

  // Every kind of query answers what record() stored.
  void expectQueriesWork() {
    EXPECT_EQ(1, collectRecords([](UserSetRecord** r) { return showUserSetFileOid(r); }).count);
    EXPECT_EQ(1, collectRecords([&](UserSetRecord** r) {
                   return queryUserSetFileOid(file_.c_str(), r, 0);
                 }).count);
    EXPECT_EQ(1, collectRecords([](UserSetRecord** r) { return showUserSetPkgId(r); }).count);
    uint64_t id = 0;
    EXPECT_EQ(0, queryUserSetPkgId("alpha", &id));
    EXPECT_EQ(0x42u, id);
    char* name = getPkgNameById(0x42);
    EXPECT_STREQ("alpha", name);
    free(name);
  }

  std::string state_;  // set once the temporary tree exists
  std::string file_;
};

TEST_F(StateFileSystemTest, QueriesWorkOnAReadOnlyStateFileSystem) {
  for (const char* journal : {"wal", "delete"}) {
    SCOPED_TRACE(journal);
    record(journal);
    ASSERT_EQ(0, mount(nullptr, state_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
    expectQueriesWork();
    Label before = labelOf(file_);
    EXPECT_LT(setFileOid(file_.c_str(), 0, ZORV_ID{4, 5, 6}), 0);
    EXPECT_EQ(before.toString(), labelOf(file_).toString());
    ASSERT_EQ(0, mount(nullptr, state_.c_str(), nullptr, MS_REMOUNT, nullptr));
    EXPECT_EQ(journal, journalMode()) << "a reader switched the journal mode";
  }
}

TEST_F(StateFileSystemTest, QueriesWorkOnAFullStateFileSystemAndKeepTheJournalMode) {
  for (const char* journal : {"wal", "delete"}) {
    SCOPED_TRACE(journal);
    record(journal);
    std::string filler = state_ + "/.filler";
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::vector<char> block(4096, 'f');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
    expectQueriesWork();
    unlink(filler.c_str());
    EXPECT_EQ(journal, journalMode()) << "a reader switched the journal mode";
  }
}

}  // namespace
}  // namespace zorv_testing

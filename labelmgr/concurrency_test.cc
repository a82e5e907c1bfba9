#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class ConcurrencyTest : public LabelMgrTest {};

// Two runs changing different fields of one file must not undo each other's
// writes: each read-modify-write of the label happens under the state lock.
TEST_F(ConcurrencyTest, TwoProcessesSettingDifferentFieldsLoseNothing) {
  constexpr uint32_t kRounds = 200;
  std::string file = makeFile("shared.txt");
  // Reading back at once also catches the other process writing back a label
  // it read before this write.
  auto setTids = [&] {
    for (uint32_t i = 1; i <= kRounds; ++i)
      if (setFileTid(file.c_str(), i, 0) != 0 || labelOf(file).tid_ != i) return false;
    return true;
  };
  auto setOids = [&] {
    for (uint64_t i = 1; i <= kRounds; ++i)
      if (setFileOid(file.c_str(), 0, ZORV_ID{i, i, i}) != 0 || labelOf(file).oid_.pkg_ != i)
        return false;
    return true;
  };
  pid_t pids[2];
  for (int i = 0; i < 2; ++i)
    if ((pids[i] = fork()) == 0) _exit((i == 0 ? setTids() : setOids()) ? 0 : 1);
  for (pid_t pid : pids) {
    int status = -1;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
  }
  EXPECT_EQ(kRounds, labelOf(file).tid_);
  EXPECT_EQ(kRounds, labelOf(file).oid_.path_);
  EXPECT_EQ(kRounds, collectRecords(showUserSetFileTid).values.at(0).at(0));

  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(stateDb().c_str(), &db, SQLITE_OPEN_READONLY, nullptr));
  sqlite3_stmt* check = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr));
  ASSERT_EQ(SQLITE_ROW, sqlite3_step(check));
  EXPECT_STREQ("ok", reinterpret_cast<const char*>(sqlite3_column_text(check, 0)));
  sqlite3_finalize(check);
  sqlite3_close(db);
}

}  // namespace
}  // namespace zorv_testing

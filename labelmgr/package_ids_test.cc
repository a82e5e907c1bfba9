#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class PackageIdsTest : public LabelMgrTest {
 protected:
  static std::string nameOf(uint64_t id) {
    char* name = getPkgNameById(id);
    if (name == nullptr) return "(none)";
    std::string copy = name;
    free(name);
    return copy;
  }
  static uint64_t idOf(const char* name) {
    uint64_t id = 0;
    return getPkgId(name, &id) == 0 ? id : 0;
  }
};

// Installed packages have the SM3-derived id of their name and need no state;
// packages that are only configured or unknown have none.
TEST_F(PackageIdsTest, InstalledPackagesWithoutState) {
  EXPECT_EQ(getSM3HashLast64Bits("alpha"), idOf("alpha"));
  EXPECT_EQ(getSM3HashLast64Bits("beta"), idOf("beta"));
  uint64_t id = 0;
  EXPECT_LT(getPkgId("gamma", &id), 0);
  EXPECT_LT(getPkgId("unknown", &id), 0);
  EXPECT_EQ("beta", nameOf(getSM3HashLast64Bits("beta")));
  EXPECT_EQ("(none)", nameOf(getSM3HashLast64Bits("gamma")));
  EXPECT_NE(0, queryUserSetPkgId("alpha", &id)) << "nothing set";
  EXPECT_EQ(0, collectRecords(showUserSetPkgId).count);
  EXPECT_FALSE(stateExists()) << "reading package ids created state";
}

// A user-set id wins both ways, stays unique, and its removal brings back the
// package's own id.
TEST_F(PackageIdsTest, UserSetIdsWinAndStayUnique) {
  ASSERT_EQ(0, setPkgId("alpha", 0x1234));
  EXPECT_EQ(0x1234u, idOf("alpha"));
  EXPECT_EQ("alpha", nameOf(0x1234));
  EXPECT_EQ("(none)", nameOf(getSM3HashLast64Bits("alpha")));
  ASSERT_EQ(0, setPkgId("newpkg", 0x99)) << "a package need not be installed";
  EXPECT_EQ(0x99u, idOf("newpkg"));

  EXPECT_LT(setPkgId("beta", 0x1234), 0) << "alpha's id";
  EXPECT_LT(setPkgId("newpkg", getSM3HashLast64Bits("beta")), 0) << "beta's own id";
  EXPECT_LT(setPkgId("beta", 0), 0) << "0 means no package";
  EXPECT_LT(setPkgId("Bad Name", 1), 0);
  EXPECT_LT(setPkgId(nullptr, 1), 0);
  EXPECT_EQ(getSM3HashLast64Bits("beta"), idOf("beta"));

  uint64_t id = 0;
  ASSERT_EQ(0, queryUserSetPkgId("alpha", &id));
  EXPECT_EQ(0x1234u, id);
  ASSERT_EQ(0, setPkgId("alpha", 0x5678));
  Records shown = collectRecords(showUserSetPkgId);
  ASSERT_EQ(2, shown.count);
  EXPECT_EQ((std::vector<std::string>{"newpkg", "alpha"}), shown.names);
  EXPECT_EQ(0x5678u, shown.values[1][0]);

  ASSERT_EQ(0, delUserSetPkgId("alpha"));
  EXPECT_EQ(getSM3HashLast64Bits("alpha"), idOf("alpha"));
  EXPECT_LT(delUserSetPkgId("alpha"), 0) << "nothing left to delete";
  ASSERT_EQ(0, clearUserSetPkgId());
  EXPECT_LT(getPkgId("newpkg", &id), 0);
  EXPECT_EQ(0, collectRecords(showUserSetPkgId).count);
}

}  // namespace
}  // namespace zorv_testing

#include <cstdlib>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class PackageIdsTest : public LabelMgrTest {};

uint64_t idOf(const char* name) {
  uint64_t id = 0;
  return getPkgId(name, &id) == 0 ? id : 0;
}
std::string nameOf(uint64_t id) {
  char* name = getPkgNameById(id);
  std::string copy = name != nullptr ? name : "(none)";
  free(name);
  return copy;
}

// Installed packages of the dpkg status file have the digest of their name
// without any state; a user-set id wins both ways, stays unique and, once
// deleted, gives the package its own id back.
TEST_F(PackageIdsTest, FromDpkgStatusAndUserSet) {
  const uint64_t alpha = getSM3HashLast64Bits("alpha"), beta = getSM3HashLast64Bits("beta");
  EXPECT_EQ(alpha, idOf("alpha"));
  EXPECT_EQ(beta, idOf("beta"));
  EXPECT_EQ(0u, idOf("gamma")) << "configuration files only";
  EXPECT_EQ(0u, idOf("unknown"));
  EXPECT_EQ("beta", nameOf(beta));
  EXPECT_EQ("(none)", nameOf(getSM3HashLast64Bits("gamma")));
  EXPECT_FALSE(stateExists()) << "reading package ids created state";

  ASSERT_EQ(0, setPkgId("alpha", 0x1234));
  EXPECT_EQ(0x1234u, idOf("alpha"));
  EXPECT_EQ("alpha", nameOf(0x1234));
  EXPECT_EQ("(none)", nameOf(alpha));
  ASSERT_EQ(0, setPkgId("newpkg", 0x99)) << "a package need not be installed";
  for (const auto& [name, id] : {std::pair<const char*, uint64_t>{"beta", 0x1234},
                                 {"newpkg", beta},
                                 {"beta", 0},
                                 {"Bad Name", 1},
                                 {nullptr, 1}})
    EXPECT_LT(setPkgId(name, id), 0) << (name ? name : "null") << " " << id;
  EXPECT_EQ(beta, idOf("beta"));

  ASSERT_EQ(0, setPkgId("alpha", 0x5678));
  Records shown = collectRecords(showUserSetPkgId);
  EXPECT_EQ((std::vector<std::string>{"newpkg", "alpha"}), shown.names);
  EXPECT_EQ((std::vector<std::vector<uint64_t>>{{0x99, 0, 0}, {0x5678, 0, 0}}), shown.values);
  ASSERT_EQ(0, delUserSetPkgId("alpha"));
  EXPECT_EQ(alpha, idOf("alpha"));
  EXPECT_LT(delUserSetPkgId("alpha"), 0) << "nothing left to delete";
  ASSERT_EQ(0, clearUserSetPkgId());
  EXPECT_EQ(0u, idOf("newpkg"));
  EXPECT_EQ(0, collectRecords(showUserSetPkgId).count);
}

}  // namespace
}  // namespace zorv_testing

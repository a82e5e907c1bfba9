#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class RestoreTest : public LabelMgrTest {};

// Without rules: the OID from the owning package, the name and the path; the
// same SID only for executable regular files; every other field zero.
TEST_F(RestoreTest, InitLabelFollowsPolicy) {
  const uint64_t alpha = getSM3HashLast64Bits("alpha");
  makeDirs(root_ + "/share");
  makeDirs(root_ + "/bin");
  ASSERT_EQ(0, symlink((root_ + "/bin").c_str(), (root_ + "/bin-link").c_str()));
  const struct {
    std::string path;
    uint64_t pkg;
    bool sid;
  } cases[] = {
      {makeFile("bin/alpha-tool", 0755), alpha, true},
      {makeFile("etc/beta.conf", 0644), getSM3HashLast64Bits("beta"), false},
      {makeFile("etc/gamma.conf", 0700), 0, true},       // gamma is not installed
      {makeFile("etc/none", 0001), 0, true},             // any execute bit counts
      {root_ + "/share", 0, false},                      // listed by two packages
      {makeFile("bin/linked-tool", 0755), alpha, true},  // listed through a link
  };
  for (const auto& c : cases) {
    Label expected;
    expected.oid_ = policyOid(c.path, c.pkg);
    if (c.sid) expected.sid_ = expected.oid_;
    EXPECT_EQ(expected.toString(), restoreSingleFileInitLabel(c.path)) << c.path;
    EXPECT_EQ(expected.toString(), labelOf(c.path).toString()) << c.path;
  }
}

// Restore applies the rules over the policy label, also through a link; init
// ignores them but sees a changed package id.
TEST_F(RestoreTest, RestoreAppliesRulesAndInitDoesNot) {
  std::string tool = makeFile("bin/alpha-tool", 0755), link = root_ + "/tool-link";
  ASSERT_EQ(0, symlink(tool.c_str(), link.c_str()));
  ASSERT_EQ(0, setFileOid(tool.c_str(), 0, ZORV_ID{1, 2, 3}));
  ASSERT_EQ(0, setFileTid((root_ + "/bin/*").c_str(), 4, 1));
  ASSERT_EQ(0, removexattr(tool.c_str(), "security.zorv"));
  Label init, ruled;
  init.oid_ = init.sid_ = ruled.sid_ = policyOid(tool, getSM3HashLast64Bits("alpha"));
  ruled.oid_ = Id::fromString("0000000000000001-0000000000000002-0000000000000003");
  ruled.tid_ = 4;
  EXPECT_EQ(ruled.toString(), restoreSingleFileLabel(link));
  EXPECT_EQ(ruled.toString(), labelOf(tool).toString());
  EXPECT_EQ(init.toString(), restoreSingleFileInitLabel(tool));
  ASSERT_EQ(0, setPkgId("alpha", 0xabc));
  ASSERT_NE("", restoreSingleFileInitLabel(tool));
  EXPECT_EQ(0xabcu, labelOf(tool).oid_.pkg_);
}

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
TEST_F(RestoreTest, PackageIdsFromDpkgStatusAndUserSet) {
  const uint64_t alpha = getSM3HashLast64Bits("alpha"), beta = getSM3HashLast64Bits("beta");
  EXPECT_EQ(alpha, idOf("alpha"));
  EXPECT_EQ("beta", nameOf(beta));
  EXPECT_EQ(0u, idOf("gamma")) << "configuration files only";
  EXPECT_FALSE(stateExists()) << "reading package ids created state";

  ASSERT_EQ(0, setPkgId("alpha", 0x1234));
  EXPECT_EQ(0x1234u, idOf("alpha"));
  EXPECT_EQ("(none)", nameOf(alpha));
  ASSERT_EQ(0, setPkgId("newpkg", 0x99)) << "a package need not be installed";
  for (const auto& [name, id] : {std::pair<const char*, uint64_t>{"beta", 0x1234},
                                 {"newpkg", beta},
                                 {"beta", 0},
                                 {"Bad Name", 1},
                                 {nullptr, 1}})
    EXPECT_LT(setPkgId(name, id), 0) << (name ? name : "null") << " " << id;

  ASSERT_EQ(0, setPkgId("alpha", 0x5678));
  Records shown = collectRecords(showUserSetPkgId);
  EXPECT_EQ((std::vector<std::string>{"newpkg", "alpha"}), shown.names);
  EXPECT_EQ((std::vector<std::vector<uint64_t>>{{0x99, 0, 0}, {0x5678, 0, 0}}), shown.values);
  ASSERT_EQ(0, delUserSetPkgId("alpha"));
  EXPECT_EQ(alpha, idOf("alpha"));
  EXPECT_LT(delUserSetPkgId("alpha"), 0) << "nothing left to delete";
  ASSERT_EQ(0, clearUserSetPkgId());
  EXPECT_EQ(0u, idOf("newpkg"));
}

}  // namespace
}  // namespace zorv_testing

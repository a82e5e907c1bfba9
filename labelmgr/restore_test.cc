#include <sys/xattr.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class RestoreTest : public LabelMgrTest {};

// The initial label: OID from the owning package, the name and the path; the
// SID only for executable regular files; the rest zero.
TEST_F(RestoreTest, InitLabelFollowsPolicy) {
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string text = restoreSingleFileInitLabel(tool);
  Label label = labelOf(tool);
  EXPECT_EQ(text, label.toString());
  Id oid = policyOid(tool, getSM3HashLast64Bits("alpha"));
  EXPECT_EQ(oid.toString(), label.oid_.toString());
  EXPECT_EQ(oid.toString(), label.sid_.toString());
  EXPECT_EQ(0u, label.tid_);
  EXPECT_EQ(0u, label.inheritFlag_);
  EXPECT_EQ(Id().toString(), label.creatorOid_.toString());

  struct Case {
    std::string path;
    uint64_t pkg;
    bool sid;
  };
  makeDirs(root_ + "/share");
  makeDirs(root_ + "/bin");
  ASSERT_EQ(0, symlink((root_ + "/bin").c_str(), (root_ + "/bin-link").c_str()));
  const Case cases[] = {
      {makeFile("etc/beta.conf", 0644), getSM3HashLast64Bits("beta"), false},
      {makeFile("etc/gamma.conf", 0700), 0, true},  // gamma is not installed
      {makeFile("etc/none", 0001), 0, true},        // any execute bit counts
      {root_ + "/share", 0, false},                 // listed by two packages
      {makeFile("bin/linked-tool", 0755), getSM3HashLast64Bits("alpha"), true},
  };
  for (const Case& c : cases) {
    ASSERT_NE("", restoreSingleFileInitLabel(c.path)) << c.path;
    Label l = labelOf(c.path);
    EXPECT_EQ(policyOid(c.path, c.pkg).toString(), l.oid_.toString()) << c.path;
    EXPECT_EQ(c.sid ? l.oid_.toString() : Id().toString(), l.sid_.toString()) << c.path;
  }
}

// Restore applies the user-set rules over the policy label; init ignores
// them; a changed package id reaches the OID on the next restore.
TEST_F(RestoreTest, RestoreAppliesRulesAndInitDoesNot) {
  std::string tool = makeFile("bin/alpha-tool", 0755);
  ASSERT_EQ(0, setFileOid(tool.c_str(), 0, ZORV_ID{1, 2, 3}));
  std::string bin = root_ + "/bin/*";
  ASSERT_EQ(0, setFileTid(bin.c_str(), 4, 1));
  Id policy = policyOid(tool, getSM3HashLast64Bits("alpha"));

  ASSERT_EQ(0, removexattr(tool.c_str(), "security.zorv"));
  std::string text = restoreSingleFileLabel(tool);
  Label restored = labelOf(tool);
  EXPECT_EQ(text, restored.toString());
  EXPECT_EQ("0000000000000001-0000000000000002-0000000000000003", restored.oid_.toString());
  EXPECT_EQ(policy.toString(), restored.sid_.toString()) << "the SID follows the policy OID";
  EXPECT_EQ(4u, restored.tid_);

  ASSERT_NE("", restoreSingleFileInitLabel(tool));
  EXPECT_EQ(policy.toString(), labelOf(tool).oid_.toString());
  EXPECT_EQ(0u, labelOf(tool).tid_);

  ASSERT_EQ(0, setPkgId("alpha", 0xabc));
  ASSERT_NE("", restoreSingleFileInitLabel(tool));
  EXPECT_EQ(0xabcu, labelOf(tool).oid_.pkg_);

  std::string link = root_ + "/tool-link";
  ASSERT_EQ(0, symlink(tool.c_str(), link.c_str()));
  ASSERT_EQ(0, removexattr(tool.c_str(), "security.zorv"));
  ASSERT_NE("", restoreSingleFileLabel(link));
  EXPECT_EQ(restored.oid_.toString(), labelOf(tool).oid_.toString());
  EXPECT_EQ(4u, labelOf(tool).tid_);
  EXPECT_EQ("", restoreSingleFileLabel(root_ + "/missing"));
}

}  // namespace
}  // namespace zorv_testing

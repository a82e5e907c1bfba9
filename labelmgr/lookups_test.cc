#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"
#include "labelmgr/state_db.h"

namespace zorv_testing {
namespace {

class LookupsTest : public LabelMgrTest {
 protected:
  void TearDown() override {
    unsetenv("ZORV_LABELMGR_MODULE_DIR");
    unsetenv("ZORV_LABELMGR_MODULES_DEP");
    LabelMgrTest::TearDown();
  }
};

uint32_t kmodHash(const std::string& name) {
  return getKmodNameHash(name.data(), static_cast<uint32_t>(name.size()));
}

// Loaded modules and modules installed for the kernel are known, under either
// spelling of '-' and '_'; the OID hashes the kernel's spelling.
TEST_F(LookupsTest, KernelModules) {
  makeDirs(base_ + "/sysmodule/snd_hda_intel");
  writeTextFile(base_ + "/modules.dep",
                "kernel/drivers/nvme/host/nvme-core.ko.xz: kernel/lib/crc.ko.xz\n"
                "kernel/fs/ext4/ext4.ko:\n");
  setenv("ZORV_LABELMGR_MODULE_DIR", (base_ + "/sysmodule").c_str(), 1);
  setenv("ZORV_LABELMGR_MODULES_DEP", (base_ + "/modules.dep").c_str(), 1);

  struct Case {
    const char* name;
    const char* kernelName;
  };
  for (const Case& c : {Case{"snd-hda-intel", "snd_hda_intel"}, Case{"nvme_core", "nvme_core"},
                        Case{"nvme-core", "nvme_core"}, Case{"ext4", "ext4"}}) {
    uint64_t oid = 0;
    ASSERT_EQ(0, getKernelModuleOid(c.name, &oid)) << c.name;
    EXPECT_EQ(kmodHash(c.kernelName), oid) << c.name;
  }
  for (const char* unknown : {"crc32", "ext", "", "../x", "a b"}) {
    uint64_t oid = 0;
    EXPECT_LT(getKernelModuleOid(unknown, &oid), 0) << unknown;
  }
}

TEST_F(LookupsTest, Devices) {
  uint64_t byPath = 0, byName = 0;
  ASSERT_EQ(0, getDeviceOid("/dev/null", &byPath));
  ASSERT_EQ(0, getDeviceOid("null", &byName));
  EXPECT_EQ(getSM3HashLast64Bits("/dev/null"), byPath);
  EXPECT_EQ(byPath, byName);
  std::string plain = makeFile("not-a-device");
  for (const std::string& bad :
       {std::string("/dev/zorv-no-such-device"), plain, std::string("../etc/passwd")}) {
    uint64_t oid = 0;
    EXPECT_LT(getDeviceOid(bad.c_str(), &oid), 0) << bad;
  }
}

// Files (present or not) resolve to their policy OID, patterns to one OID per
// covered file, packages to their id; an unknown kind fails the whole call.
TEST_F(LookupsTest, PoliciesParse) {
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string other = makeFile("bin/other");
  std::string missing = root_ + "/etc/not-there";
  std::string pattern = root_ + "/bin/*";
  ASSERT_EQ(0, setPkgId("beta", 0x42));
  PolicyTable table = {{"object_file", {tool, missing}},
                       {"subject_recurfile", {pattern}},
                       {"subject_pkg", {"alpha", "gamma"}},
                       {"object_pkg", {"beta"}}};
  PolicyResult result;
  ASSERT_EQ(0, policies_parse(table, result));

  auto text = [](const ZORV_ID& id) {
    Id copy;
    copy.pkg_ = id.pkg;
    copy.file_ = id.file;
    copy.path_ = id.path;
    return copy.toString();
  };
  uint64_t alpha = getSM3HashLast64Bits("alpha");
  ASSERT_EQ(1u, result["object_file"][tool].size());
  EXPECT_EQ(policyOid(tool, alpha).toString(), text(result["object_file"][tool][0]));
  ASSERT_EQ(1u, result["object_file"][missing].size());
  EXPECT_EQ(policyOid(missing, 0).toString(), text(result["object_file"][missing][0]));
  const std::vector<ZORV_ID>& matches = result["subject_recurfile"][pattern];
  ASSERT_EQ(2u, matches.size());
  EXPECT_EQ(policyOid(tool, alpha).toString(), text(matches[0]));
  EXPECT_EQ(policyOid(other, 0).toString(), text(matches[1]));
  ASSERT_EQ(1u, result["subject_pkg"]["alpha"].size());
  const ZORV_ID& alphaId = result["subject_pkg"]["alpha"][0];
  EXPECT_EQ(alpha, alphaId.pkg);
  EXPECT_EQ(0u, alphaId.file + alphaId.path) << "a package id fills the first number only";
  EXPECT_TRUE(result["subject_pkg"]["gamma"].empty()) << "not installed: no id";
  EXPECT_EQ(0x42u, result["object_pkg"]["beta"].at(0).pkg);

  PolicyResult untouched;
  EXPECT_NE(0, policies_parse({{"object_file", {tool}}, {"object_dir", {root_}}}, untouched));
  EXPECT_TRUE(untouched.empty());
}

TEST_F(LookupsTest, LabelSetStatus) {
  EXPECT_EQ(0, getLabelSetStatus());
  EXPECT_FALSE(stateExists()) << "asking created state";
  ASSERT_TRUE(zorv::labelmgr::setLabelSetStatus(1));
  EXPECT_EQ(1, getLabelSetStatus());
  ASSERT_TRUE(zorv::labelmgr::setLabelSetStatus(0));
  EXPECT_EQ(0, getLabelSetStatus());
}

}  // namespace
}  // namespace zorv_testing

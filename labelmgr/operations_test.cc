#include <sqlite3.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

using Values = std::vector<uint64_t>;

// One label field through the library's calls for it: an identifier field
// (setId, getId) or a 32-bit one (setNumber, getNumber).
struct FieldCase {
  const char* name;
  int (*setId)(const char*, int, ZORV_ID);
  int (*getId)(const char*, ZORV_ID*);
  int (*setNumber)(const char*, uint32_t, int);
  int (*getNumber)(const char*, uint32_t*);
  int (*del)(const char*, int);
  int (*clear)();
  int (*query)(const char*, UserSetRecord**, int);
  int (*show)(UserSetRecord**);
};
const FieldCase kFields[] = {
    {"oid", setFileOid, getFileOid, nullptr, nullptr, delFileOid, clearFileOid, queryUserSetFileOid,
     showUserSetFileOid},
    {"sid", setFileSid, getFileSid, nullptr, nullptr, delFileSid, clearFileSid, queryUserSetFileSid,
     showUserSetFileSid},
    {"tid", nullptr, nullptr, setFileTid, getFileTid, delFileTid, clearFileTid, queryUserSetFileTid,
     showUserSetFileTid},
    {"inherit_flag", nullptr, nullptr, setFileInheritFlag, getFileInheritFlag, delFileInheritFlag,
     clearFileInheritFlag, queryUserSetFileInheritFlag, showUserSetFileInheritFlag},
};

void PrintTo(const FieldCase& field, std::ostream* out) { *out << field.name; }

class FieldCycleTest : public LabelMgrTest, public ::testing::WithParamInterface<FieldCase> {};

// Set changes only its field; delete and clear give back exactly the policy
// label, and clear reaches every file.
TEST_P(FieldCycleTest, SetGetDeleteClear) {
  const FieldCase& field = GetParam();
  const Values value = field.setId ? Values{1, 2, 3} : Values{5, 0, 0};
  auto set = [&](const std::string& path) {
    return field.setId ? field.setId(path.c_str(), 0, {1, 2, 3})
                       : field.setNumber(path.c_str(), 5, 0);
  };
  std::string tool = makeFile("bin/alpha-tool", 0755), other = makeFile("etc/other.txt");
  const std::string toolPolicy = restoreSingleFileInitLabel(tool);
  const std::string otherPolicy = restoreSingleFileInitLabel(other);

  ASSERT_EQ(0, set(tool));
  const std::string afterSet = labelOf(tool).toString();
  EXPECT_EQ(afterSet, restoreSingleFileLabel(tool)) << "set changed more than its field";
  ZORV_ID id{};
  uint32_t number = 0;
  ASSERT_EQ(0,
            field.getId ? field.getId(tool.c_str(), &id) : field.getNumber(tool.c_str(), &number));
  EXPECT_EQ(value, (field.getId ? Values{id.pkg, id.file, id.path} : Values{number, 0, 0}));
  for (const Records& listed : {collectRecords(field.show), collectRecords([&](UserSetRecord** r) {
                                  return field.query(tool.c_str(), r, 0);
                                })}) {
    EXPECT_EQ(std::vector<std::string>{tool}, listed.names);
    EXPECT_EQ(std::vector<Values>{value}, listed.values);
  }

  ASSERT_EQ(0, field.del(tool.c_str(), 0));
  EXPECT_EQ(toolPolicy, labelOf(tool).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_LT(field.del(tool.c_str(), 0), 0) << "nothing left to delete";

  ASSERT_EQ(0, set(tool));
  ASSERT_EQ(0, set(other));
  ASSERT_EQ(0, field.clear());
  EXPECT_EQ(toolPolicy, labelOf(tool).toString());
  EXPECT_EQ(otherPolicy, labelOf(other).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_EQ(0, field.clear()) << "clearing nothing is no failure";
}

INSTANTIATE_TEST_SUITE_P(EachField, FieldCycleTest, ::testing::ValuesIn(kFields),
                         [](const auto& info) { return std::string(info.param.name); });

class OperationsTest : public LabelMgrTest {};

// A pattern labels what glob matches now and files restored later; a file's
// own rule wins over patterns, otherwise the pattern set last decides; query
// lists the deciding rule first, show every rule in the order set.
TEST_F(OperationsTest, PatternRulesAndWhatTheyCover) {
  std::string a = makeFile("etc/a.conf"), b = makeFile("etc/b.conf");
  std::string untouched[] = {makeFile("etc/c.txt"), makeFile("etc/sub/d.conf"),
                             makeFile("etc/.h.conf")};
  std::string confs = root_ + "/etc/*.conf", as = root_ + "/etc/a.*";
  auto tids = [](const std::vector<std::string>& files) {
    std::vector<uint32_t> got;
    for (const std::string& f : files) got.push_back(labelOf(f).tid_);
    return got;
  };
  auto query = [](const std::string& path, int pattern) {
    return collectRecords(
        [&](UserSetRecord** r) { return queryUserSetFileTid(path.c_str(), r, pattern); });
  };

  ASSERT_EQ(0, setFileTid(confs.c_str(), 7, 1));
  EXPECT_EQ((std::vector<uint32_t>{7, 7}), tids({a, b}));
  for (const std::string& f : untouched) EXPECT_FALSE(hasLabel(f)) << f;
  std::string later = makeFile("etc/e.conf");
  ASSERT_NE("", restoreSingleFileLabel(later));
  EXPECT_EQ(7u, labelOf(later).tid_);

  ASSERT_EQ(0, setFileTid(as.c_str(), 2, 1));
  EXPECT_EQ((std::vector<uint32_t>{2, 7}), tids({a, b}));
  ASSERT_EQ(0, setFileTid(a.c_str(), 9, 0));
  ASSERT_EQ(0, setFileTid(confs.c_str(), 8, 1));
  EXPECT_EQ((std::vector<uint32_t>{9, 8, 8}), tids({a, b, later}));
  EXPECT_EQ((std::vector<std::string>{a, confs, as}), query(a, 0).names);
  EXPECT_EQ((std::vector<std::string>{as, a, confs}), collectRecords(showUserSetFileTid).names);
  EXPECT_EQ((std::vector<std::string>{a, confs}), query(root_ + "/etc/*.conf", 1).names);

  ASSERT_EQ(0, delFileTid(a.c_str(), 0));
  EXPECT_EQ(8u, labelOf(a).tid_) << "the pattern set last decides again";
  EXPECT_LT(delFileTid(confs.c_str(), 0), 0) << "a pattern rule is not an exact one";
  ASSERT_EQ(0, delFileTid((as + "/").c_str(), 1)) << "a trailing slash names the same rule";
  ASSERT_EQ(0, delFileTid(confs.c_str(), 1));
  EXPECT_EQ((std::vector<uint32_t>{0, 0, 0}), tids({a, b, later}));
}

// Every refused path or pattern fails the call with one error line and
// changes nothing: no label written, no state created.
TEST_F(OperationsTest, GatesRefuseWithOneErrorLine) {
  std::string f = makeFile("etc/f");
  std::string dangling = root_ + "/dangling";
  ASSERT_EQ(0, symlink((root_ + "/gone").c_str(), dangling.c_str()));
  LogCapture log;
  size_t errors = 0;
  auto refused = [&](int rc, const std::string& what) {
    EXPECT_LT(rc, 0) << what;
    EXPECT_EQ(++errors, log.count("ERROR ")) << what << "\n" << log.dump();
  };
  for (const std::string& p :
       {std::string(), std::string("etc/f"), root_ + "/missing", root_ + "/etc/../etc/f",
        root_ + "//etc/f", root_ + "/etc/f;true", root_ + "/etc/*", dangling}) {
    ZORV_ID oid{};
    UserSetRecord* records = nullptr;
    refused(setFileOid(p.c_str(), 0, ZORV_ID{1, 2, 3}), "set " + p);
    refused(getFileOid(p.c_str(), &oid), "get " + p);
    refused(delFileTid(p.c_str(), 0), "del " + p);
    refused(queryUserSetFileSid(p.c_str(), &records, 0), "query " + p);
    EXPECT_EQ(nullptr, records);
    refused(restoreSingleFileLabel(p).empty() ? -1 : 0, "restore " + p);
  }
  for (const std::string& p : {std::string("*.conf"), root_ + "/../*", root_ + "//*",
                               root_ + "/etc/$(x)*", root_ + "/" + std::string(51, '*')}) {
    refused(setFileTid(p.c_str(), 1, 1), "set pattern " + p);
    refused(delFileSid(p.c_str(), 1), "del pattern " + p);
  }
  refused(setFileTid(nullptr, 1, 0), "null path");
  refused(setFileInheritFlag(f.c_str(), 8, 0), "inherit flag 8");
  EXPECT_FALSE(hasLabel(f));
  EXPECT_FALSE(stateExists());
}

// Two runs changing different fields of one file must not undo each other's
// writes; reading back at once catches one writing back a label read before.
TEST_F(OperationsTest, TwoProcessesSettingDifferentFieldsLoseNothing) {
  constexpr uint32_t kRounds = 200;
  std::string file = makeFile("shared.txt");
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

  sqlite3* db = nullptr;
  sqlite3_stmt* check = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(stateDb().c_str(), &db, SQLITE_OPEN_READONLY, nullptr));
  ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr));
  ASSERT_EQ(SQLITE_ROW, sqlite3_step(check));
  EXPECT_STREQ("ok", reinterpret_cast<const char*>(sqlite3_column_text(check, 0)));
  sqlite3_finalize(check);
  sqlite3_close(db);
}

// Init, without rules: the OID from the owning package, the name and the path;
// the same SID only for executable regular files; every other field zero.
// Restore applies the rules over that, also through a link.
TEST_F(OperationsTest, RestoreAndInitWithAndWithoutRules) {
  const uint64_t alpha = getSM3HashLast64Bits("alpha");
  makeDirs(root_ + "/share");
  makeDirs(root_ + "/bin");
  ASSERT_EQ(0, symlink((root_ + "/bin").c_str(), (root_ + "/bin-link").c_str()));
  const std::string tool = makeFile("bin/alpha-tool", 0755), link = root_ + "/tool-link";
  const struct {
    std::string path;
    uint64_t pkg;
    bool sid;
  } cases[] = {
      {tool, alpha, true},
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

  const std::string init = labelOf(tool).toString();
  ASSERT_EQ(0, symlink(tool.c_str(), link.c_str()));
  ASSERT_EQ(0, setFileOid(tool.c_str(), 0, ZORV_ID{1, 2, 3}));
  ASSERT_EQ(0, setFileTid((root_ + "/bin/*").c_str(), 4, 1));
  ASSERT_EQ(0, removexattr(tool.c_str(), "security.zorv"));
  Label ruled = Label::fromString(init);  // the SID still follows the policy OID
  ruled.oid_ = Id::fromString("0000000000000001-0000000000000002-0000000000000003");
  ruled.tid_ = 4;
  EXPECT_EQ(ruled.toString(), restoreSingleFileLabel(link));
  EXPECT_EQ(ruled.toString(), labelOf(tool).toString());
  EXPECT_EQ(init, restoreSingleFileInitLabel(tool));
}

uint64_t idOf(const char* name) {
  uint64_t id = 0;
  return getPkgId(name, &id) == 0 ? id : 0;
}

// Installed packages of the dpkg status file have the digest of their name
// without any state; a user-set id wins both ways, reaches labels, stays
// unique and, once deleted, gives the package its own id back.
TEST_F(OperationsTest, PackageIdsFromDpkgStatusAndUserSet) {
  const uint64_t alpha = getSM3HashLast64Bits("alpha"), beta = getSM3HashLast64Bits("beta");
  EXPECT_EQ(alpha, idOf("alpha"));
  char* name = getPkgNameById(beta);
  EXPECT_STREQ("beta", name);
  free(name);
  EXPECT_EQ(0u, idOf("gamma")) << "configuration files only";
  EXPECT_FALSE(stateExists()) << "reading package ids created state";

  ASSERT_EQ(0, setPkgId("alpha", 0x1234));
  EXPECT_EQ(0x1234u, idOf("alpha"));
  EXPECT_EQ(nullptr, getPkgNameById(alpha));
  EXPECT_EQ(0x1234u,
            Label::fromString(restoreSingleFileInitLabel(makeFile("bin/alpha-tool"))).oid_.pkg_);
  ASSERT_EQ(0, setPkgId("newpkg", 0x99)) << "a package need not be installed";
  const std::pair<const char*, uint64_t> refused[] = {
      {"beta", 0x1234}, {"newpkg", beta}, {"beta", 0}, {"Bad Name", 1}, {nullptr, 1}};
  for (const auto& [name, id] : refused)
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

// A module is known when loaded or installed, whichever of '-' and '_' its
// name is spelt with; the digest is of the kernel's spelling, with '_'.
TEST_F(LabelMgrTest, KernelModuleOidsUseTheKernelsSpelling) {
  makeDirs(base_ + "/sysmodule/snd_hda_intel");
  writeTextFile(base_ + "/modules.dep", "kernel/drivers/nvme/host/nvme-core.ko.xz: crc.ko.xz\n");
  ScopedEnv loaded("ZORV_LABELMGR_MODULE_DIR", base_ + "/sysmodule");
  ScopedEnv installed("ZORV_LABELMGR_MODULES_DEP", base_ + "/modules.dep");
  for (const char* name : {"snd-hda-intel", "nvme_core", "nvme-core", "crc", "a b", ""}) {
    std::string kernelName = name;
    for (char& c : kernelName) c = c == '-' ? '_' : c;
    const bool known = kernelName == "snd_hda_intel" || kernelName == "nvme_core";
    uint64_t oid = 0;
    EXPECT_EQ(known ? 0 : -1, getKernelModuleOid(name, &oid)) << name;
    if (known) {
      EXPECT_EQ(getKmodNameHash(kernelName.data(), kernelName.size()), oid) << name;
    }
  }
}

}  // namespace
}  // namespace zorv_testing

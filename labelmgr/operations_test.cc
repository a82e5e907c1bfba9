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

// One label field through the library's calls for it.
struct FieldCase {
  const char* name;
  Values value;  // what the test sets
  int (*set)(const char*, const Values&);
  int (*get)(const char*, Values*);
  int (*del)(const char*, int);
  int (*clear)();
  int (*query)(const char*, UserSetRecord**, int);
  int (*show)(UserSetRecord**);
};
void PrintTo(const FieldCase& field, std::ostream* out) { *out << field.name; }

// The identifier fields and the 32-bit fields each share one calling shape.
template <int (*Set)(const char*, int, ZORV_ID), int (*Get)(const char*, ZORV_ID*)>
struct IdField {
  static int set(const char* p, const Values& v) { return Set(p, 0, {v[0], v[1], v[2]}); }
  static int get(const char* p, Values* v) {
    ZORV_ID id{};
    const int rc = Get(p, &id);
    *v = {id.pkg, id.file, id.path};
    return rc;
  }
};
template <int (*Set)(const char*, uint32_t, int), int (*Get)(const char*, uint32_t*)>
struct NumberField {
  static int set(const char* p, const Values& v) { return Set(p, static_cast<uint32_t>(v[0]), 0); }
  static int get(const char* p, Values* v) {
    uint32_t n = 0;
    const int rc = Get(p, &n);
    *v = {n, 0, 0};
    return rc;
  }
};
template <typename Field>
FieldCase field(const char* name, Values value, int (*del)(const char*, int), int (*clear)(),
                int (*query)(const char*, UserSetRecord**, int), int (*show)(UserSetRecord**)) {
  return {name, value, Field::set, Field::get, del, clear, query, show};
}

const FieldCase kFields[] = {
    field<IdField<setFileOid, getFileOid>>("oid", {1, 2, 3}, delFileOid, clearFileOid,
                                           queryUserSetFileOid, showUserSetFileOid),
    field<IdField<setFileSid, getFileSid>>("sid", {4, 5, 6}, delFileSid, clearFileSid,
                                           queryUserSetFileSid, showUserSetFileSid),
    field<NumberField<setFileTid, getFileTid>>("tid", {0x77, 0, 0}, delFileTid, clearFileTid,
                                               queryUserSetFileTid, showUserSetFileTid),
    field<NumberField<setFileInheritFlag, getFileInheritFlag>>(
        "inherit_flag", {5, 0, 0}, delFileInheritFlag, clearFileInheritFlag,
        queryUserSetFileInheritFlag, showUserSetFileInheritFlag),
};

class FieldCycleTest : public LabelMgrTest, public ::testing::WithParamInterface<FieldCase> {};

// Set changes only its field; delete and clear give back exactly the policy
// label, and clear reaches every file.
TEST_P(FieldCycleTest, SetGetDeleteClear) {
  const FieldCase& field = GetParam();
  std::string tool = makeFile("bin/alpha-tool", 0755), other = makeFile("etc/other.txt");
  const std::string toolPolicy = restoreSingleFileInitLabel(tool);
  const std::string otherPolicy = restoreSingleFileInitLabel(other);

  ASSERT_EQ(0, field.set(tool.c_str(), field.value));
  const std::string afterSet = labelOf(tool).toString();
  EXPECT_NE(toolPolicy, afterSet);
  EXPECT_EQ(afterSet, restoreSingleFileLabel(tool)) << "set changed more than its field";
  Values got;
  ASSERT_EQ(0, field.get(tool.c_str(), &got));
  EXPECT_EQ(field.value, got);
  for (const Records& listed : {collectRecords(field.show), collectRecords([&](UserSetRecord** r) {
                                  return field.query(tool.c_str(), r, 0);
                                })}) {
    EXPECT_EQ(std::vector<std::string>{tool}, listed.names);
    EXPECT_EQ(std::vector<Values>{field.value}, listed.values);
  }

  ASSERT_EQ(0, field.del(tool.c_str(), 0));
  EXPECT_EQ(toolPolicy, labelOf(tool).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_LT(field.del(tool.c_str(), 0), 0) << "nothing left to delete";

  ASSERT_EQ(0, field.set(tool.c_str(), field.value));
  ASSERT_EQ(0, field.set(other.c_str(), field.value));
  ASSERT_EQ(0, field.clear());
  EXPECT_EQ(toolPolicy, labelOf(tool).toString());
  EXPECT_EQ(otherPolicy, labelOf(other).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_EQ(0, field.clear()) << "clearing nothing is no failure";
}

INSTANTIATE_TEST_SUITE_P(EachField, FieldCycleTest, ::testing::ValuesIn(kFields),
                         [](const auto& info) { return std::string(info.param.name); });

class FileFieldsTest : public LabelMgrTest {};

// A pattern labels what glob matches now and files restored later; a file's
// own rule wins over patterns, otherwise the pattern set last decides; query
// lists the deciding rule first, show every rule in the order set.
TEST_F(FileFieldsTest, PatternRulesAndWhatTheyCover) {
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
  EXPECT_EQ(0, query(untouched[0], 0).count);
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
TEST_F(FileFieldsTest, GatesRefuseWithOneErrorLine) {
  std::string f = makeFile("etc/f");
  std::string dangling = root_ + "/dangling";
  ASSERT_EQ(0, symlink((root_ + "/gone").c_str(), dangling.c_str()));
  LogCapture log;
  size_t errors = 0;
  auto refused = [&](int rc, const std::string& what) {
    EXPECT_LT(rc, 0) << what;
    EXPECT_EQ(++errors, log.count("ERROR ")) << what << "\n" << log.dump();
    errors = log.count("ERROR ");
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
// writes: each read-modify-write of the label happens under the state lock.
// Reading back at once also catches the other process writing back a label it
// read before this write.
TEST_F(FileFieldsTest, TwoProcessesSettingDifferentFieldsLoseNothing) {
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
  EXPECT_EQ(kRounds, collectRecords(showUserSetFileTid).values.at(0).at(0));

  sqlite3* db = nullptr;
  sqlite3_stmt* check = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(stateDb().c_str(), &db, SQLITE_OPEN_READONLY, nullptr));
  ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr));
  ASSERT_EQ(SQLITE_ROW, sqlite3_step(check));
  EXPECT_STREQ("ok", reinterpret_cast<const char*>(sqlite3_column_text(check, 0)));
  sqlite3_finalize(check);
  sqlite3_close(db);
}

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

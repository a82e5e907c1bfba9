#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

using Values = std::vector<uint64_t>;

Values idValues(const Id& id) { return {id.pkg_, id.file_, id.path_}; }

// One label field seen through the library's calls for it.
struct FieldCase {
  const char* name;
  Values value;  // what the test sets
  int (*set)(const char*, const Values&, int);
  int (*get)(const char*, Values*);
  int (*del)(const char*, int);
  int (*clear)();
  int (*query)(const char*, UserSetRecord**, int);
  int (*show)(UserSetRecord**);
  Values (*of)(const Label&);
};

void PrintTo(const FieldCase& field, std::ostream* out) { *out << field.name; }

// The identifier fields and the 32-bit fields each share one calling shape.
template <int (*Set)(const char*, int, ZORV_ID), int (*Get)(const char*, ZORV_ID*),
          Id Label::*Member>
struct IdField {
  static int set(const char* p, const Values& v, int pm) { return Set(p, pm, {v[0], v[1], v[2]}); }
  static int get(const char* p, Values* v) {
    ZORV_ID id{};
    const int rc = Get(p, &id);
    *v = {id.pkg, id.file, id.path};
    return rc;
  }
  static Values of(const Label& l) { return idValues(l.*Member); }
};
template <int (*Set)(const char*, uint32_t, int), int (*Get)(const char*, uint32_t*),
          uint32_t Label::*Member>
struct NumberField {
  static int set(const char* p, const Values& v, int pm) {
    return Set(p, static_cast<uint32_t>(v[0]), pm);
  }
  static int get(const char* p, Values* v) {
    uint32_t n = 0;
    const int rc = Get(p, &n);
    *v = {n, 0, 0};
    return rc;
  }
  static Values of(const Label& l) { return {l.*Member, 0, 0}; }
};
using Oid = IdField<setFileOid, getFileOid, &Label::oid_>;
using Sid = IdField<setFileSid, getFileSid, &Label::sid_>;
using Tid = NumberField<setFileTid, getFileTid, &Label::tid_>;
using Flag = NumberField<setFileInheritFlag, getFileInheritFlag, &Label::inheritFlag_>;

template <typename Field>
FieldCase field(const char* name, Values value, int (*del)(const char*, int), int (*clear)(),
                int (*query)(const char*, UserSetRecord**, int), int (*show)(UserSetRecord**)) {
  return {name, value, Field::set, Field::get, del, clear, query, show, Field::of};
}

const FieldCase kFields[] = {
    field<Oid>("oid", {1, 2, 3}, delFileOid, clearFileOid, queryUserSetFileOid, showUserSetFileOid),
    field<Sid>("sid", {4, 5, 6}, delFileSid, clearFileSid, queryUserSetFileSid, showUserSetFileSid),
    field<Tid>("tid", {0x77, 0, 0}, delFileTid, clearFileTid, queryUserSetFileTid,
               showUserSetFileTid),
    field<Flag>("inherit_flag", {5, 0, 0}, delFileInheritFlag, clearFileInheritFlag,
                queryUserSetFileInheritFlag, showUserSetFileInheritFlag),
};

class FieldCycleTest : public LabelMgrTest, public ::testing::WithParamInterface<FieldCase> {};

// Set, get, delete and clear one field: the other fields of the label stay as
// they were, and delete and clear give back exactly the policy value.
TEST_P(FieldCycleTest, SetGetDeleteClear) {
  const FieldCase& field = GetParam();
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string other = makeFile("etc/other.txt");
  ASSERT_NE("", restoreSingleFileInitLabel(tool));
  ASSERT_NE("", restoreSingleFileInitLabel(other));
  const Label toolPolicy = labelOf(tool), otherPolicy = labelOf(other);

  ASSERT_EQ(0, field.set(tool.c_str(), field.value, 0));
  Values got;
  ASSERT_EQ(0, field.get(tool.c_str(), &got));
  EXPECT_EQ(field.value, got);
  for (const FieldCase& each : kFields) {
    if (std::string(each.name) == field.name) continue;
    EXPECT_EQ(each.of(toolPolicy), each.of(labelOf(tool))) << each.name;
  }

  for (const Records& listed : {collectRecords(field.show), collectRecords([&](UserSetRecord** r) {
                                  return field.query(tool.c_str(), r, 0);
                                })}) {
    ASSERT_EQ(1, listed.count);
    EXPECT_EQ(tool, listed.names[0]);
    EXPECT_EQ(field.value, listed.values[0]);
  }

  ASSERT_EQ(0, field.del(tool.c_str(), 0));
  EXPECT_EQ(toolPolicy.toString(), labelOf(tool).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_LT(field.del(tool.c_str(), 0), 0) << "nothing left to delete";

  ASSERT_EQ(0, field.set(tool.c_str(), field.value, 0));
  ASSERT_EQ(0, field.set(other.c_str(), field.value, 0));
  EXPECT_EQ(field.value, field.of(labelOf(other)));
  ASSERT_EQ(0, field.clear());
  EXPECT_EQ(toolPolicy.toString(), labelOf(tool).toString());
  EXPECT_EQ(otherPolicy.toString(), labelOf(other).toString());
  EXPECT_EQ(0, collectRecords(field.show).count);
  EXPECT_EQ(0, field.clear()) << "clearing nothing is no failure";
}

INSTANTIATE_TEST_SUITE_P(EachField, FieldCycleTest, ::testing::ValuesIn(kFields),
                         [](const auto& info) { return std::string(info.param.name); });

class FileFieldsTest : public LabelMgrTest {};

TEST_F(FileFieldsTest, FieldSetOnUnlabelledFileStartsFromZero) {
  std::string f = makeFile("plain");
  EXPECT_FALSE(hasLabel(f));
  uint32_t tid = 0;
  EXPECT_LT(getFileTid(f.c_str(), &tid), 0) << "no label, nothing to get";
  ASSERT_EQ(0, setFileTid(f.c_str(), 9, 0));
  Label expected;
  expected.tid_ = 9;
  EXPECT_EQ(expected.toString(), labelOf(f).toString());
}

// A pattern rule labels what glob would match now, governs files created
// later, and yields to a file's own exact rule.
TEST_F(FileFieldsTest, PatternRulesCoverWhatGlobMatches) {
  std::string a = makeFile("etc/a.conf"), b = makeFile("etc/b.conf");
  std::string txt = makeFile("etc/c.txt"), deeper = makeFile("etc/sub/d.conf");
  std::string hidden = makeFile("etc/.h.conf");
  std::string pattern = root_ + "/etc/*.conf";

  ASSERT_EQ(0, setFileTid(pattern.c_str(), 7, 1));
  EXPECT_EQ(7u, labelOf(a).tid_);
  EXPECT_EQ(7u, labelOf(b).tid_);
  for (const std::string& untouched : {txt, deeper, hidden})
    EXPECT_FALSE(hasLabel(untouched)) << untouched;

  std::string later = makeFile("etc/e.conf");
  EXPECT_FALSE(hasLabel(later));
  ASSERT_NE("", restoreSingleFileLabel(later));
  EXPECT_EQ(7u, labelOf(later).tid_);

  // Query of an exact path: the deciding rule first.
  Records q =
      collectRecords([&](UserSetRecord** r) { return queryUserSetFileTid(a.c_str(), r, 0); });
  ASSERT_EQ(1, q.count);
  EXPECT_EQ(pattern, q.names[0]);
  EXPECT_EQ(7u, q.values[0][0]);
  EXPECT_EQ(0, collectRecords([&](UserSetRecord** r) {
                 return queryUserSetFileTid(txt.c_str(), r, 0);
               }).count);

  ASSERT_EQ(0, setFileTid(a.c_str(), 9, 0));
  q = collectRecords([&](UserSetRecord** r) { return queryUserSetFileTid(a.c_str(), r, 0); });
  ASSERT_EQ(2, q.count);
  EXPECT_EQ(a, q.names[0]);
  EXPECT_EQ(9u, q.values[0][0]);
  EXPECT_EQ(pattern, q.names[1]);

  // Setting the pattern again labels b but leaves a to its own rule.
  ASSERT_EQ(0, setFileTid(pattern.c_str(), 8, 1));
  EXPECT_EQ(9u, labelOf(a).tid_);
  EXPECT_EQ(8u, labelOf(b).tid_);

  ASSERT_EQ(0, delFileTid((pattern + "/").c_str(), 1)) << "a trailing slash names the same rule";
  EXPECT_EQ(9u, labelOf(a).tid_);
  EXPECT_EQ(0u, labelOf(b).tid_);
  EXPECT_EQ(0u, labelOf(later).tid_);
  EXPECT_LT(delFileTid(pattern.c_str(), 0), 0) << "a pattern rule is not an exact one";
}

// Among patterns the latest set decides; deleting a rule hands the field to
// whichever rule decides next, as restore would.
TEST_F(FileFieldsTest, LatestPatternDecidesAndDeleteFallsBack) {
  std::string a = makeFile("etc/a.conf");
  std::string confs = root_ + "/etc/*.conf", as = root_ + "/etc/a.*";
  ASSERT_EQ(0, setFileInheritFlag(confs.c_str(), 1, 1));
  ASSERT_EQ(0, setFileInheritFlag(as.c_str(), 2, 1));
  EXPECT_EQ(2u, labelOf(a).inheritFlag_);
  ASSERT_EQ(0, setFileInheritFlag(confs.c_str(), 3, 1));
  EXPECT_EQ(3u, labelOf(a).inheritFlag_);
  ASSERT_EQ(0, setFileInheritFlag(a.c_str(), 4, 0));
  ASSERT_EQ(0, setFileInheritFlag(as.c_str(), 5, 1));
  EXPECT_EQ(4u, labelOf(a).inheritFlag_);
  ASSERT_NE("", restoreSingleFileLabel(a));
  EXPECT_EQ(4u, labelOf(a).inheritFlag_);

  ASSERT_EQ(0, delFileInheritFlag(a.c_str(), 0));
  EXPECT_EQ(5u, labelOf(a).inheritFlag_);
  ASSERT_EQ(0, delFileInheritFlag(as.c_str(), 1));
  EXPECT_EQ(3u, labelOf(a).inheritFlag_);
  ASSERT_EQ(0, clearFileInheritFlag());
  EXPECT_EQ(0u, labelOf(a).inheritFlag_);
}

// query with a pattern lists the rules whose target the pattern matches, in
// the order they were set; show lists every rule of the field.
TEST_F(FileFieldsTest, QueryByPatternAgainstShow) {
  std::string a = makeFile("etc/a.conf"), x = makeFile("var/x.log");
  std::string confs = root_ + "/etc/*.conf";
  ASSERT_EQ(0, setFileSid(confs.c_str(), 1, ZORV_ID{1, 1, 1}));
  ASSERT_EQ(0, setFileSid(x.c_str(), 0, ZORV_ID{2, 2, 2}));
  ASSERT_EQ(0, setFileSid(a.c_str(), 0, ZORV_ID{3, 3, 3}));

  Records all = collectRecords(showUserSetFileSid);
  ASSERT_EQ(3, all.count);
  EXPECT_EQ((std::vector<std::string>{confs, x, a}), all.names);
  EXPECT_EQ((Values{2, 2, 2}), all.values[1]);

  std::string etc = root_ + "/etc/*";
  Records underEtc =
      collectRecords([&](UserSetRecord** r) { return queryUserSetFileSid(etc.c_str(), r, 1); });
  EXPECT_EQ((std::vector<std::string>{confs, a}), underEtc.names);
  std::string none = root_ + "/usr/*";
  EXPECT_EQ(0, collectRecords([&](UserSetRecord** r) {
                 return queryUserSetFileSid(none.c_str(), r, 1);
               }).count);
}

// A link may name the file; the rule is kept for the file it leads to.
TEST_F(FileFieldsTest, LinksAreFollowedToTheirFile) {
  std::string f = makeFile("real/file");
  std::string link = root_ + "/link";
  ASSERT_EQ(0, symlink(f.c_str(), link.c_str()));
  ASSERT_EQ(0, setFileTid(link.c_str(), 3, 0));
  EXPECT_EQ(3u, labelOf(f).tid_);
  Records shown = collectRecords(showUserSetFileTid);
  ASSERT_EQ(1, shown.count);
  EXPECT_EQ(f, shown.names[0]);
}

// Every refused path or pattern fails the call with one error line and
// changes nothing: no label written, no state created.
TEST_F(FileFieldsTest, GatesRefuseWithOneErrorLine) {
  std::string f = makeFile("etc/f");
  std::string dangling = root_ + "/dangling";
  ASSERT_EQ(0, symlink((root_ + "/gone").c_str(), dangling.c_str()));
  const std::vector<std::string> badPaths = {
      "",
      "etc/f",
      root_ + "/missing",
      root_ + "/etc/../etc/f",
      root_ + "//etc/f",
      root_ + "/etc/f;true",
      root_ + "/etc/*",
      dangling,
  };
  const std::vector<std::string> badPatterns = {
      "*.conf",
      root_ + "/../*",
      root_ + "//*",
      root_ + "/etc/$(x)*",
      root_ + "/" + std::string(51, '*'),
  };
  LogCapture log;
  size_t errors = 0;
  auto expectOneError = [&](const std::string& what) {
    size_t now = log.count("ERROR ");
    EXPECT_EQ(errors + 1, now) << what << "\n" << log.dump();
    errors = now;
  };
  for (const std::string& p : badPaths) {
    EXPECT_LT(setFileOid(p.c_str(), 0, ZORV_ID{1, 2, 3}), 0) << p;
    expectOneError("set " + p);
    ZORV_ID oid{};
    EXPECT_LT(getFileOid(p.c_str(), &oid), 0) << p;
    expectOneError("get " + p);
    EXPECT_LT(delFileTid(p.c_str(), 0), 0) << p;
    expectOneError("del " + p);
    UserSetRecord* records = nullptr;
    EXPECT_LT(queryUserSetFileSid(p.c_str(), &records, 0), 0) << p;
    EXPECT_EQ(nullptr, records);
    expectOneError("query " + p);
    EXPECT_EQ("", restoreSingleFileLabel(p)) << p;
    expectOneError("restore " + p);
  }
  for (const std::string& p : badPatterns) {
    EXPECT_LT(setFileTid(p.c_str(), 1, 1), 0) << p;
    expectOneError("set pattern " + p);
    EXPECT_LT(delFileSid(p.c_str(), 1), 0) << p;
    expectOneError("del pattern " + p);
  }
  EXPECT_LT(setFileTid(nullptr, 1, 0), 0);
  expectOneError("null path");
  EXPECT_LT(setFileInheritFlag(f.c_str(), 8, 0), 0);
  expectOneError("inherit flag 8");

  EXPECT_FALSE(hasLabel(f));
  EXPECT_FALSE(stateExists());
}

}  // namespace
}  // namespace zorv_testing

// Field commands and user-set queries against the test double: what the tool
// passes to the library, what it prints and how it ends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

using Calls = std::vector<std::string>;

TEST(FieldsE2eTest, SetCommandsCountWordsFromTheEnd) {
  FakeLabelManager fake;
  fake.script("setFileSid @/bad ret=-1\nsetFileTid ret=1\nsetPkgId ret=-1\n");
  fake.expect({"-a", "-o", "/f", "1", "2", "ffffffffffffffff"}, "set file oid success. /f\n");
  fake.expect({"-P", "-a", "-m", "/d/*", "0x1A", "b", "c"}, "set file sid success. /d/*\n");
  fake.expect({"-a", "-m", "/bad", "1", "2", "3"}, "set file sid error. /bad\n", 1);
  // Failed TID and package id sets still end with 0.
  fake.expect({"-a", "-t", "/f", "1f"}, "set file tid error. /f\n");
  fake.expect({"-a", "-p", "vim", "abc"}, "set pkgid error. vim\n");
  // The flag is narrowed to 32 bits before its range is checked.
  fake.expect({"-a", "-n", "/f", "100000003"}, "set file inherit_flag success. /f\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"setFileOid(\"/f\", 0, {0x1, 0x2, 0xffffffffffffffff})",
                   "setFileSid(\"/d/*\", 1, {0x1a, 0xb, 0xc})",
                   "setFileSid(\"/bad\", 0, {0x1, 0x2, 0x3})", "setFileTid(\"/f\", 0x1f, 0)",
                   "setPkgId(\"vim\", 0xabc)", "setFileInheritFlag(\"/f\", 0x3, 0)"}));

  fake.script("");
  fake.expect({"-a", "-o", "/f", "1", "2", "3", "4"}, "set file oid error, parameter error.\n", 1);
  fake.expect({"-P", "-a", "-p", "vim", "1"}, "set pkgid error, parameter error.\n", 1);
  fake.expect({"-a", "-n", "/f", "8"},
              "set file inheritFlag error, the parameter value ranges from 0 to 7.\n", 1);
  EXPECT_TRUE(fake.calls().empty());
}

TEST(FieldsE2eTest, GetStepsRunInAFixedOrderUntilOneFails) {
  FakeLabelManager fake;
  fake.script(
      "getPkgId value=1f\ngetFileOid id=1,2,3\ngetFileSid id=a,0,ffffffffffffffff\n"
      "getFileTid value=12\ngetFileInheritFlag value=5\n");
  fake.expect({"-g", "-n", "/n", "-t", "/t", "-m", "/m", "-o", "/o", "-p", "vim"},
              "vim pkgid:000000000000001f\n"
              "/o oid:0000000000000001-0000000000000002-0000000000000003\n"
              "/m sid:000000000000000a-0000000000000000-ffffffffffffffff\n"
              "/t tid:00000012\n/n inheritFlag:00000005\n");
  fake.script("getFileSid ret=-1\n");
  fake.expect({"-g", "-m", "/m", "-t", "/t"}, "get file sid error..\n", 1);
  EXPECT_EQ(fake.calls(), (Calls{"getFileSid(\"/m\")"}));
}

TEST(FieldsE2eTest, DeleteAndClearGoOnAfterAFailure) {
  FakeLabelManager fake;
  fake.script("delFileOid @b ret=-1\nclearFileTid ret=1\n");
  // The OID step echoes every operand first.
  fake.expect({"-d", "-P", "-o", "a", "b", "c"},
              kDeleteRule +
                  "a\nb\nc\ndelete file oid success. a\ndelete file oid error: b\n"
                  "delete file oid success. c\n");
  fake.expect({"-d", "-c", "tid", "oid", "pkg_id", "sid"},
              kDeleteRule +
                  "clear file tid error.\nclear file oid success.\nparam error!!\n"
                  "the value of parameter -c is sid/oid/tid/inherit_flag/creator_oid/pkgid\n",
              1);
  EXPECT_EQ(fake.calls(), (Calls{"delFileOid(\"a\", 1)", "delFileOid(\"b\", 1)",
                                 "delFileOid(\"c\", 1)", "clearFileTid()", "clearFileOid()"}));
}

TEST(UserSetE2eTest, ListingsAndQueries) {
  FakeLabelManager fake;
  fake.script(
      "showUserSetFileOid rec=/a|1,2,3 rec=/b|ffffffffffffffff,0,a\n"
      "showUserSetFileTid rec=/t|123456789 rec=/u|7\n"
      "showUserSetPkgId rec=vim|1f\nqueryUserSetPkgId ret=1\n"
      "queryUserSetFileOid ret=0\nqueryUserSetFileSid ret=-3\n");
  fake.expect({"-g", "-u", "-o", "--all"},
              "/a, oid : 0x0000000000000001-0x0000000000000002-0x0000000000000003\n"
              "/b, oid : 0xffffffffffffffff-0x0000000000000000-0x000000000000000a\n");
  // TID and flag print the whole value, at least eight digits.
  fake.expect({"-g", "-u", "-t", "--all"}, "/t, tid : 0x123456789\n/u, tid : 0x00000007\n");
  // -p is answered first; the other selectors are ignored.
  fake.expect({"-g", "-u", "-p", "--all", "-o", "/f"}, "vim, pkgid : 0x000000000000001f\n");
  fake.expect({"-g", "-u", "-p", "nano"}, "No id has been set for the nano package\n");
  fake.expect({"-g", "-u", "-o", "/d/*", "-P"}, "No oid has been set for any file.\n");
  fake.expect({"-g", "-u", "-m", "/f"}, "query user set sid failed, count = -3\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"showUserSetFileOid()", "showUserSetFileTid()", "showUserSetPkgId()",
                   "queryUserSetPkgId(\"nano\")", "queryUserSetFileOid(\"/d/*\", 1)",
                   "queryUserSetFileSid(\"/f\", 0)"}));
}

}  // namespace
}  // namespace zorv_testing

// User-set queries against the test double: listing formats, the "none" and
// "failed" lines, and what is passed for "--all" and for a path or pattern.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

using Calls = std::vector<std::string>;

TEST(UserSetE2eTest, FileFieldsListRecordsWithTheirOwnWidths) {
  FakeLabelManager fake;
  fake.script(
      "showUserSetFileOid rec=/a|1,2,3 rec=/b|ffffffffffffffff,0,a\n"
      "showUserSetFileSid rec=/s|4,5,6\n"
      "showUserSetFileTid rec=/t|123456789 rec=/u|7\n"
      "showUserSetFileInheritFlag rec=/n|5\n");
  fake.expect({"-g", "-u", "-o", "--all"},
              "/a, oid : 0x0000000000000001-0x0000000000000002-0x0000000000000003\n"
              "/b, oid : 0xffffffffffffffff-0x0000000000000000-0x000000000000000a\n");
  fake.expect({"-g", "-u", "-m", "--all"},
              "/s, sid : 0x0000000000000004-0x0000000000000005-0x0000000000000006\n");
  // TID and flag print the whole first value, at least eight digits.
  fake.expect({"-g", "-u", "-t", "--all"}, "/t, tid : 0x123456789\n/u, tid : 0x00000007\n");
  fake.expect({"-P", "-g", "-u", "-n", "--all"}, "/n, inherit_flag : 0x00000005\n");
  EXPECT_EQ(fake.calls(), (Calls{"showUserSetFileOid()", "showUserSetFileSid()",
                                 "showUserSetFileTid()", "showUserSetFileInheritFlag()"}));
}

TEST(UserSetE2eTest, QueriesPassThePatternFlagAndReportNoneOrFailure) {
  FakeLabelManager fake;
  fake.script(
      "queryUserSetFileOid ret=0\n"
      "queryUserSetFileSid ret=-3\n"
      "queryUserSetFileTid ret=-2\n"
      "queryUserSetFileInheritFlag ret=0\n");
  fake.expect({"-g", "-u", "-o", "/d/*", "-P"}, "No oid has been set for any file.\n");
  fake.expect({"-g", "-u", "-m", "/f"}, "query user set sid failed, count = -3\n");
  fake.expect({"-g", "-u", "-t", "/f"}, "query user set tid failed, count = -2\n");
  fake.expect({"-g", "-u", "-n", "/f"}, "No inherit_flag has been set for any file.\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"queryUserSetFileOid(\"/d/*\", 1)", "queryUserSetFileSid(\"/f\", 0)",
                   "queryUserSetFileTid(\"/f\", 0)", "queryUserSetFileInheritFlag(\"/f\", 0)"}));

  fake.script("showUserSetFileSid ret=-1\nshowUserSetFileTid ret=0\n");
  fake.expect({"-g", "-u", "-m", "--all"}, "query user set sid failed, count = -1\n");
  fake.expect({"-g", "-u", "-t", "--all"}, "No tid has been set for any file.\n");
  fake.expect({"-g", "-u", "-o", "--all"}, "No oid has been set for any file.\n");
}

TEST(UserSetE2eTest, PackageIdsByNameOrAll) {
  FakeLabelManager fake;
  fake.script(
      "showUserSetPkgId rec=vim|1f rec=bash|ffffffffffffffff\n"
      "queryUserSetPkgId @vim value=1f\n"
      "queryUserSetPkgId ret=1\n");
  // -p is answered first; the other selectors are ignored.
  fake.expect({"-g", "-u", "-p", "--all", "-o", "/f"},
              "vim, pkgid : 0x000000000000001f\nbash, pkgid : 0xffffffffffffffff\n");
  fake.expect({"-g", "-u", "-p", "vim"}, "vim, pkgid : 0x000000000000001f\n");
  fake.expect({"-g", "-u", "-p", "nano"}, "No id has been set for the nano package\n");
  EXPECT_EQ(fake.calls(), (Calls{"showUserSetPkgId()", "queryUserSetPkgId(\"vim\")",
                                 "queryUserSetPkgId(\"nano\")"}));

  fake.script("showUserSetPkgId ret=0\n");
  fake.expect({"-g", "-u", "-p", "--all"}, "No package id has been set.\n");
  fake.script("showUserSetPkgId ret=-4\n");
  fake.expect({"-g", "-u", "-p", "--all"}, "Failed to show the user setting id, count = -4\n");
}

TEST(UserSetE2eTest, WithoutAFieldSelectorTheGetChainRuns) {
  FakeLabelManager fake;
  fake.script("getKernelModuleOid value=2a\n");
  fake.expect({"-g", "-u", "-k", "ext4"}, "module Oid:000000000000002a\n");
  EXPECT_EQ(fake.calls(), (Calls{"getKernelModuleOid(\"ext4\")"}));
}

}  // namespace
}  // namespace zorv_testing

// Field commands against the test double: what the tool passes to the library,
// what it prints and how it ends.
#include <signal.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

using Calls = std::vector<std::string>;

TEST(FieldsE2eTest, SetOidAndSidCountTheWordsAndConvertTheLastThree) {
  FakeLabelManager fake;
  fake.script("setFileSid @/bad ret=-1\n");
  fake.expect({"-a", "-o", "/f", "1", "2", "ffffffffffffffff"}, "set file oid success. /f\n");
  fake.expect({"-P", "-a", "-m", "/d/*", "0x1A", "b", "c"}, "set file sid success. /d/*\n");
  fake.expect({"-a", "-m", "/bad", "1", "2", "3"}, "set file sid error. /bad\n", 1);
  EXPECT_EQ(fake.calls(), (Calls{"setFileOid(\"/f\", 0, {0x1, 0x2, 0xffffffffffffffff})",
                                 "setFileSid(\"/d/*\", 1, {0x1a, 0xb, 0xc})",
                                 "setFileSid(\"/bad\", 0, {0x1, 0x2, 0x3})"}));

  fake.script("");
  fake.expect({"-a", "-o", "/f", "1", "2"}, "set file oid error, parameter error.\n", 1);
  fake.expect({"-a", "-o", "/f", "1", "2", "3", "4"}, "set file oid error, parameter error.\n", 1);
  fake.expect({"-P", "-a", "-m", "/f", "1", "2"}, "set file sid error, parameter error.\n", 1);
  EXPECT_TRUE(fake.calls().empty());
}

TEST(FieldsE2eTest, SetTidIsLenientAndCarriesItsValueIntoTheInheritFlag) {
  FakeLabelManager fake;
  fake.script("setFileTid ret=1\n");
  // A failed TID set still ends with 0.
  fake.expect({"-a", "-t", "/f", "1f"}, "set file tid error. /f\n");
  fake.expect({"-a", "-t", "/f"}, "set file tid error, parameter error.\n", 1);

  // -n needs a word of its own; only folded into "-an1" does the TID count
  // still pass.
  fake.script("");
  fake.expect({"-an1", "-t", "/f", "5"},
              "set file tid success. /f\nset file inherit_flag success. /f\n");
  // 9 is a valid TID but not a valid flag.
  fake.expect({"-an1", "-t", "/f", "9"},
              "set file tid success. /f\n"
              "set file inheritFlag error, the parameter value ranges from 0 to 7.\n",
              1);
  EXPECT_EQ(fake.calls(), (Calls{"setFileTid(\"/f\", 0x5, 0)", "setFileInheritFlag(\"/f\", 0x5, 0)",
                                 "setFileTid(\"/f\", 0x9, 0)"}));
}

TEST(FieldsE2eTest, SetInheritFlagNarrowsThenChecksTheRange) {
  FakeLabelManager fake;
  fake.script("setFileInheritFlag @/ro ret=-1\n");
  fake.expect({"-a", "-n", "/f", "100000003"}, "set file inherit_flag success. /f\n");
  fake.expect({"-a", "-n", "/f", "8"},
              "set file inheritFlag error, the parameter value ranges from 0 to 7.\n", 1);
  fake.expect({"-a", "-n", "/ro", "7"}, "set file inherit_flag error. /ro\n", 1);
  fake.expect({"-a", "-n", "/f", "1", "2"}, "set file inheritFlag error, parameter error.\n", 1);
  EXPECT_EQ(fake.calls(),
            (Calls{"setFileInheritFlag(\"/f\", 0x3, 0)", "setFileInheritFlag(\"/ro\", 0x7, 0)"}));
}

TEST(FieldsE2eTest, SetPackageIdTakesTheFifthWordAndNeverFails) {
  FakeLabelManager fake;
  fake.script("setPkgId @bad ret=-1\n");
  fake.expect({"-a", "-p", "vim", "abc"}, "set pkgid success. vim\n");
  fake.expect({"-a", "-p", "bad", "1"}, "set pkgid error. bad\n");
  fake.expect({"-P", "-a", "-p", "vim", "1"}, "set pkgid error, parameter error.\n", 1);
  EXPECT_EQ(fake.calls(), (Calls{"setPkgId(\"vim\", 0xabc)", "setPkgId(\"bad\", 0x1)"}));
}

TEST(FieldsE2eTest, BadNumbersEndTheRunAbnormallyBeforeAnyCall) {
  FakeLabelManager fake;
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  // The tool's own line, then what the C++ runtime prints as it aborts.
  auto aborted = [](bool range, const std::string& what) {
    return std::string(range ? "Out of Range error: " : "Invalid argument: ") + what +
           "\nterminate called after throwing an instance of 'std::" +
           (range ? "out_of_range" : "invalid_argument") + "'\n  what():  " + what + "\n";
  };
  const Case cases[] = {
      {{"-a", "-t", "/f", "zz"}, aborted(false, "stoul")},
      {{"-a", "-t", "/f", "1g"},
       aborted(false, "Conversion failed due to invalid characters in the string.")},
      {{"-a", "-o", "/f", "1", "x", "3"}, aborted(false, "stoull")},
      {{"-a", "-p", "vim", "10000000000000000"}, aborted(true, "stoull")},
      {{"-a", "-t", "/f", "10000000000000000"}, aborted(true, "stoul")},
      {{"-g", "-q", "vim"}, aborted(false, "stoull")},
  };
  for (const Case& c : cases) {
    const ToolResult r = fake.run(c.args);
    EXPECT_EQ(r.out, "") << c.args[2];
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.signal, SIGABRT);
  }
  EXPECT_TRUE(fake.calls().empty());
}

TEST(FieldsE2eTest, GetStepsUseTheirOwnArgumentsInAFixedOrder) {
  FakeLabelManager fake;
  fake.script(
      "getPkgId value=1f\n"
      "getFileOid id=1,2,3\n"
      "getFileSid id=a,0,ffffffffffffffff\n"
      "getFileTid value=12\n"
      "getFileInheritFlag value=5\n");
  fake.expect({"-g", "-n", "/n", "-t", "/t", "-m", "/m", "-o", "/o", "-p", "vim"},
              "vim pkgid:000000000000001f\n"
              "/o oid:0000000000000001-0000000000000002-0000000000000003\n"
              "/m sid:000000000000000a-0000000000000000-ffffffffffffffff\n"
              "/t tid:00000012\n"
              "/n inheritFlag:00000005\n");

  // The package-name lookup ends the chain.
  fake.script("getPkgNameById text=vim\n");
  fake.expect({"-g", "-q", "1a", "-o", "/x"}, "pkg name: vim\n");
  EXPECT_EQ(fake.calls(), (Calls{"getPkgNameById(0x1a)"}));
}

TEST(FieldsE2eTest, AFailedGetStepStopsTheChain) {
  FakeLabelManager fake;
  struct Case {
    std::string failing;
    std::vector<std::string> args;
    std::string out;
  };
  const Case cases[] = {
      {"getPkgId", {"-g", "-p", "vim", "-o", "/o"}, "get pkg id error..\n"},
      {"getFileOid", {"-g", "-o", "/o", "-m", "/m"}, "get file oid error..\n"},
      {"getFileSid", {"-g", "-m", "/m", "-t", "/t"}, "get file sid error..\n"},
      {"getFileTid", {"-g", "-t", "/t", "-n", "/n"}, "get file tid error..\n"},
      {"getFileInheritFlag", {"-g", "-n", "/n", "-k", "m"}, "get file inheritFlag error..\n"},
  };
  for (const Case& c : cases) {
    fake.script(c.failing + " ret=-1\n");
    fake.expect(c.args, c.out, 1);
    EXPECT_EQ(fake.calls().size(), 1u) << c.failing;
  }
}

TEST(FieldsE2eTest, DeleteStepsWorkOnTheOperandList) {
  FakeLabelManager fake;
  fake.script("delFileOid @b ret=-1\n");
  // The OID step echoes every operand first; a failure neither stops the list
  // nor the run.
  fake.expect({"-d", "-P", "-o", "a", "b", "c"},
              kDeleteRule +
                  "a\nb\nc\ndelete file oid success. a\ndelete file oid error: b\n"
                  "delete file oid success. c\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"delFileOid(\"a\", 1)", "delFileOid(\"b\", 1)", "delFileOid(\"c\", 1)"}));

  // Every selector's step runs over the operands, which begin at the last
  // option's argument: /a is never touched.
  fake.script("delFileSid ret=2\n");
  fake.expect({"-d", "-o", "/a", "-m", "/b", "-p", "vim", "-t", "/c"},
              kDeleteRule +
                  "delete pkg id success. /c\n"
                  "/c\n"
                  "delete file oid success. /c\n"
                  "delete file sid error: /c\n"
                  "delete file tid success. /c\n");
  EXPECT_EQ(fake.calls(), (Calls{"delUserSetPkgId(\"/c\")", "delFileOid(\"/c\", 0)",
                                 "delFileSid(\"/c\", 0)", "delFileTid(\"/c\", 0)"}));

  fake.script("");
  fake.expect({"-d", "-n", "/f"}, kDeleteRule + "delete file inheritFlag success. /f\n");
}

TEST(FieldsE2eTest, ClearWordsRunInOrderUntilAnUnknownOne) {
  FakeLabelManager fake;
  fake.script("clearFileTid ret=1\n");
  fake.expect({"-d", "-c", "sid", "oid", "tid", "inherit_flag", "pkgid"},
              kDeleteRule +
                  "clear file sid success.\n"
                  "clear file oid success.\n"
                  "clear file tid error.\n"
                  "clear file inherit_flag success.\n"
                  "clear pkg id success.\n");
  EXPECT_EQ(fake.calls(), (Calls{"clearFileSid()", "clearFileOid()", "clearFileTid()",
                                 "clearFileInheritFlag()", "clearUserSetPkgId()"}));

  fake.script("");
  const std::string refusal =
      "param error!!\nthe value of parameter -c is sid/oid/tid/inherit_flag/creator_oid/pkgid\n";
  fake.expect({"-d", "-c", "oid", "pkg_id", "sid"},
              kDeleteRule + "clear file oid success.\n" + refusal, 1);
  fake.expect({"-d", "--clear", "sid"}, kDeleteRule + refusal, 1);
  EXPECT_EQ(fake.calls(), (Calls{"clearFileOid()"}));
}

}  // namespace
}  // namespace zorv_testing

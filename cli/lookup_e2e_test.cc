// Restore, init, whole-system labelling, lookups, the policy self-test and the
// subscription listener, against the test double.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

using Calls = std::vector<std::string>;

TEST(LookupE2eTest, RestoreAndInitPrintTheNewLabel) {
  FakeLabelManager fake;
  fake.script(
      "restoreSingleFileLabel @/f text=LABEL-A\n"
      "restoreSingleFileInitLabel @/f text=LABEL-B\n");
  fake.expect({"-r", "-l", "/f"}, "/f restore label success, new label: LABEL-A\n");
  fake.expect({"--init", "--label", "/f"}, "/f init label success, init label: LABEL-B\n");
  fake.expect({"-r", "-l", "/g"}, "/g restore label failed...\n", 1);
  fake.expect({"-i", "-l", "/g"}, "/g init label failed...\n", 1);
  EXPECT_EQ(fake.calls(),
            (Calls{"restoreSingleFileLabel(\"/f\")", "restoreSingleFileInitLabel(\"/f\")",
                   "restoreSingleFileLabel(\"/g\")", "restoreSingleFileInitLabel(\"/g\")"}));

  fake.script("");
  const std::string empty = "The parameter is incorrect, the file path is empty...\n";
  fake.expect({"-r"}, empty, 1);
  fake.expect({"-i", "-o", "/f"}, empty, 1);
  EXPECT_TRUE(fake.calls().empty());
}

TEST(LookupE2eTest, WholeSystemLabellingTakesPrecedenceAndReportsItsTime) {
  FakeLabelManager fake;
  const ToolResult r = fake.run({"-a", "-s", "/srv", "-o", "/f", "1", "2", "3"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("set the label for files begin, please wait...\n"
                                                 "set the label for files end, cost time = "
                                                 "[0-9]+\\.[0-9]{4} seconds\n")))
      << r.out;
  EXPECT_EQ(fake.calls(), (Calls{"addTagFullSystem(\"/srv\", 0 excludes)"}));
}

TEST(LookupE2eTest, ModuleDeviceAndPackageNameLookups) {
  FakeLabelManager fake;
  fake.script(
      "getKernelModuleOid @ext4 value=abc\n"
      "getKernelModuleOid ret=-1\n"
      "getDeviceOid value=ffffffffffffffff\n");
  fake.expect({"-g", "-k", "ext4", "-e", "/dev/sda"},
              "module Oid:0000000000000abc\ndevice Oid:ffffffffffffffff\n");
  // A failed module lookup stops the chain before the device.
  fake.expect({"-g", "-k", "nope", "-e", "/dev/sda"}, "get kernel module oid error..\n", 1);
  EXPECT_EQ(fake.calls(), (Calls{"getKernelModuleOid(\"ext4\")", "getDeviceOid(\"/dev/sda\")",
                                 "getKernelModuleOid(\"nope\")"}));

  fake.script("getDeviceOid ret=-2\ngetPkgNameById null\n");
  fake.expect({"-g", "-e", "/dev/x"}, "get device oid error..\n", 1);
  fake.expect({"-g", "-q", "0x1f"}, "get pkg name by id error\n", 1);
}

TEST(LookupE2eTest, PolicySelfTestPrintsWhatTheLibraryResolved) {
  FakeLabelManager fake;
  fake.script(
      "policies_parse entry=subject_pkg|vim|1f,2,3 entry=object_file|/etc/b|1,2,3 "
      "entry=object_recurfile|/home/*/desktop/*|4,5,6 "
      "entry=object_recurfile|/home/*/desktop/*|7,8,9\n"
      "getLabelSetStatus ret=26\n");
  // Kinds and items in key order; package kinds show the first number only;
  // the stream stays hexadecimal for the status.
  fake.expect({"-g", "-b"},
              "policies_parse test begin\n"
              "object_file:/etc/b 0000000000000001-0000000000000002-0000000000000003\n"
              "object_recurfile:/home/*/desktop/* "
              "0000000000000004-0000000000000005-0000000000000006\n"
              "object_recurfile:/home/*/desktop/* "
              "0000000000000007-0000000000000008-0000000000000009\n"
              "subject_pkg:vim 000000000000001f\n"
              "policies_parse test end\n"
              "LabelSetStatus: 1a\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"policies_parse(object_file: \"/etc/b\" \"/boot/config-6.6.10\"; "
                   "object_recurfile: \"/home/*/desktop/*\" \"/home/tst/desktop/*\"; "
                   "subject_file: \"/usr/sbin/tc\" \"/etc/pwd/config\"; subject_pkg: \"vim\"; )",
                   "getLabelSetStatus()"}));

  // Nothing resolved: the status stays decimal, and the chain goes on.
  fake.script("getLabelSetStatus ret=26\n");
  fake.expect({"-g", "-b", "-l", "/nonexistent-zorv"},
              "policies_parse test begin\npolicies_parse test end\nLabelSetStatus: 26\n", 0,
              "Warning: No files matched the pattern: /nonexistent-zorv\n");

  fake.script("policies_parse ret=-1\n");
  fake.expect({"-g", "-b"}, "policies_parse test begin\npolicies_parse error!\n", 1);
}

TEST(LookupE2eTest, ListenerPrintsMessagesUntilAReceiveFails) {
  FakeLabelManager fake;
  fake.script(
      "recvLabelChangeMsg text=file set-oid /f 1\n"
      "recvLabelChangeMsg null\n"
      "recvLabelChangeMsg text=pkg set-id vim 000000000000001f\n"
      "recvLabelChangeMsg ret=1\n");
  fake.expect({"-S", "-T", "file set"},
              "Recviced: file set-oid /f 1\n"
              "Recviced: \n"
              "Recviced: pkg set-id vim 000000000000001f\n"
              "recvice file label change message error.\n",
              1);
  EXPECT_EQ(fake.calls(), (Calls{"createSubscriber()", "subscribeLabelChangeMsg(\"file set\")",
                                 "recvLabelChangeMsg()", "recvLabelChangeMsg()",
                                 "recvLabelChangeMsg()", "recvLabelChangeMsg()"}));

  fake.script("subscribeLabelChangeMsg ret=-1\n");
  fake.expect({"--subscribe"}, "subscribe file label change message error.\n", 1);
  EXPECT_EQ(fake.calls(), (Calls{"createSubscriber()", "subscribeLabelChangeMsg(\"\")"}));

  fake.script("recvLabelChangeMsg ret=5\n");
  fake.expect({"-S"}, "recvice file label change message error.\n", 1);
}

}  // namespace
}  // namespace zorv_testing

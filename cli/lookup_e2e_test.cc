// Restore, whole-system labelling, the policy self-test and the subscription
// listener, against the test double.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

using Calls = std::vector<std::string>;

TEST(LookupE2eTest, RestoreAndWholeSystemLabelling) {
  FakeLabelManager fake;
  fake.script("restoreSingleFileLabel @/f text=LABEL-A\n");
  fake.expect({"-r", "-l", "/f"}, "/f restore label success, new label: LABEL-A\n");
  fake.expect({"-i", "-l", "/g"}, "/g init label failed...\n", 1);
  fake.expect({"-r"}, "The parameter is incorrect, the file path is empty...\n", 1);
  // Whole-system labelling wins over every other request.
  const ToolResult r = fake.run({"-a", "-s", "/srv", "-o", "/f", "1", "2", "3"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("set the label for files begin, please wait...\n"
                                                 "set the label for files end, cost time = "
                                                 "[0-9]+\\.[0-9]{4} seconds\n")))
      << r.out;
  EXPECT_EQ(fake.calls(),
            (Calls{"restoreSingleFileLabel(\"/f\")", "restoreSingleFileInitLabel(\"/g\")",
                   "addTagFullSystem(\"/srv\", 0 excludes)"}));
}

TEST(LookupE2eTest, PolicySelfTestLeavesTheStreamHexadecimal) {
  FakeLabelManager fake;
  fake.script(
      "policies_parse entry=subject_pkg|vim|1f,2,3 entry=object_file|/etc/b|1,2,3\n"
      "getLabelSetStatus ret=26\n");
  // Kinds in key order; package kinds show the first number only.
  fake.expect({"-g", "-b"},
              "policies_parse test begin\n"
              "object_file:/etc/b 0000000000000001-0000000000000002-0000000000000003\n"
              "subject_pkg:vim 000000000000001f\npolicies_parse test end\nLabelSetStatus: 1a\n");
  EXPECT_EQ(fake.calls(),
            (Calls{"policies_parse(object_file: \"/etc/b\" \"/boot/config-6.6.10\"; "
                   "object_recurfile: \"/home/*/desktop/*\" \"/home/tst/desktop/*\"; "
                   "subject_file: \"/usr/sbin/tc\" \"/etc/pwd/config\"; subject_pkg: \"vim\"; )",
                   "getLabelSetStatus()"}));
  // Nothing resolved, nothing printed in hexadecimal.
  fake.script("getLabelSetStatus ret=26\n");
  fake.expect({"-g", "-b"},
              "policies_parse test begin\npolicies_parse test end\nLabelSetStatus: 26\n");
}

TEST(LookupE2eTest, ListenerPrintsMessagesUntilAReceiveFails) {
  FakeLabelManager fake;
  fake.script(
      "recvLabelChangeMsg text=file set-oid /f 1\nrecvLabelChangeMsg null\n"
      "recvLabelChangeMsg ret=1\n");
  fake.expect({"-S", "-T", "file set"},
              "Recviced: file set-oid /f 1\nRecviced: \nrecvice file label change message error.\n",
              1);
  EXPECT_EQ(fake.calls(),
            (Calls{"createSubscriber()", "subscribeLabelChangeMsg(\"file set\")",
                   "recvLabelChangeMsg()", "recvLabelChangeMsg()", "recvLabelChangeMsg()"}));
}

}  // namespace
}  // namespace zorv_testing

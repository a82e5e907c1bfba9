#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/change_bus.h"
#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

class ChangeMessagesTest : public LabelMgrTest {
 protected:
  void SetUp() override {
    LabelMgrTest::SetUp();
    alarm(60);  // a message that never comes would block the receive for ever
    ASSERT_EQ(0, listener_.subscribe(""));
  }
  void TearDown() override {
    zorv::labelmgr::closeLabelChangePublisher();
    alarm(0);
    LabelMgrTest::TearDown();
  }

  // Everything received up to a marker published from here.
  std::vector<std::string> received() {
    zorv::labelmgr::publishLabelChange("end");
    std::vector<std::string> messages;
    std::string text;
    while (listener_.receive(text) == 0 && text != "end") messages.push_back(text);
    return messages;
  }

  zorv::labelmgr::LabelChangeListener listener_;
};

// One message per file whose label changed and per package-id change, after
// the change, in the order made.
TEST_F(ChangeMessagesTest, OnePerChangedFileAndPackage) {
  std::string a = makeFile("etc/a.conf"), b = makeFile("etc/b.conf");
  std::string spaced = makeFile("etc/with space");
  std::string pattern = root_ + "/etc/*.conf";
  std::vector<std::string> expected;
  auto fileMessage = [&](const std::string& op, const std::string& file) {
    expected.push_back("file " + op + " " + file + " " + labelOf(file).toString());
  };

  ASSERT_EQ(0, setFileTid(pattern.c_str(), 7, 1));
  fileMessage("set-tid", a);
  fileMessage("set-tid", b);
  ASSERT_EQ(0, setFileTid(a.c_str(), 7, 0));  // same label: no message
  ASSERT_EQ(0, delFileTid(pattern.c_str(), 1));
  fileMessage("del-tid", b);  // a keeps 7 through its own rule
  ASSERT_EQ(0, setFileOid(spaced.c_str(), 0, ZORV_ID{1, 2, 3}));
  fileMessage("set-oid", spaced);
  ASSERT_EQ(0, clearFileOid());
  fileMessage("clear-oid", spaced);
  ASSERT_NE("", restoreSingleFileInitLabel(a));
  fileMessage("init", a);
  ASSERT_NE("", restoreSingleFileInitLabel(a));  // unchanged: no message

  ASSERT_EQ(0, setPkgId("alpha", 0x42));
  expected.push_back("pkg set-id alpha 0000000000000042");
  ASSERT_EQ(0, delUserSetPkgId("alpha"));
  char own[17];
  snprintf(own, sizeof(own), "%016lx", static_cast<unsigned long>(getSM3HashLast64Bits("alpha")));
  expected.push_back(std::string("pkg del-id alpha ") + own);
  ASSERT_EQ(0, setPkgId("zeta", 7));
  expected.push_back("pkg set-id zeta 0000000000000007");
  ASSERT_EQ(0, clearUserSetPkgId());
  expected.push_back("pkg clear-id zeta -");

  EXPECT_LT(setFileTid((root_ + "/missing").c_str(), 1, 0), 0);  // refused: no message
  EXPECT_EQ(expected, received());
}

}  // namespace
}  // namespace zorv_testing

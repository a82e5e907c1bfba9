#include "label/label.h"

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace {

using zorv_testing::LogCapture;

const std::string kZero = "0000000000000000-0000000000000000-0000000000000000";
const std::string kOid = "0000000000000001-0000000000000002-0000000000000003";
const std::string kSid = "0000000000000004-0000000000000000-0000000000000000";
const std::string kCreator = "00000000000000aa-00000000000000bb-00000000000000cc";

bool isZero(const Label& label) { return label.toString() == Label().toString(); }

TEST(LabelTextTest, PrintsAndParsesOidTidSidFlagCreator) {
  EXPECT_EQ(kZero + ":0:" + kZero + ":0:" + kZero, Label().toString());

  const std::string text = kOid + ":12:" + kSid + ":5:" + kCreator;
  Label label = Label::fromString(text);
  EXPECT_EQ(12u, label.tid_);
  EXPECT_EQ(text, label.toString());

  // Only the low 32 bits of the TID are kept; a sign and trailing text pass.
  EXPECT_EQ(1u, Label::fromString(kOid + ":4294967297:" + kSid + ":0:" + kCreator).tid_);
  EXPECT_EQ(4294967295u, Label::fromString(kOid + ":-1:" + kSid + ":0:" + kCreator).tid_);
  EXPECT_EQ(12u, Label::fromString(kOid + ": 12abc:" + kSid + ":7:" + kCreator).tid_);
}

TEST(LabelTextTest, BadIdentifierZeroesOnlyThatIdentifier) {
  LogCapture capture;
  Label label = Label::fromString(kOid.substr(1) + ":12:" + kSid + ":5:" + kCreator + ":extra");
  EXPECT_EQ(kZero, label.oid_.toString());
  EXPECT_EQ(kZero, label.creatorOid_.toString());  // ran on to the end of the line
  EXPECT_EQ(kSid, label.sid_.toString());
  EXPECT_EQ(12u, label.tid_);
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 49"));
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 56"));
  EXPECT_EQ(0u, capture.count("label deserialization failed"));

  // A newline ends the creator; what follows is ignored.
  EXPECT_EQ(
      kCreator,
      Label::fromString(kOid + ":1:" + kSid + ":5:" + kCreator + "\nx").creatorOid_.toString());
}

TEST(LabelTextTest, FailuresGiveAllZeroAndOneErrorLine) {
  const struct {
    std::string text;
    std::string reason;
  } cases[] = {
      {"", "Invalid format: missing OID"},
      {kOid, "Invalid format: missing TID"},
      {kOid + ":1", "Invalid format: missing SID"},
      {kOid + ":1:" + kSid, "Invalid format: missing inherit flag"},
      {kOid + ":1:" + kSid + ":5", "Invalid format: missing creator OID"},
      {kOid + ":1:" + kSid + ":5:", "Invalid format: missing creator OID"},
      {kOid + "::" + kSid + ":5:" + kCreator, "stoul"},
      {kOid + ":99999999999999999999:" + kSid + ":5:" + kCreator, "stoul"},
      {kOid + ":1:" + kSid + ":3:" + kCreator, "Invalid inherit flag value"},
      {kOid + ":1:" + kSid + ":6:" + kCreator, "Invalid inherit flag value"},
  };
  for (const auto& c : cases) {
    LogCapture capture;
    EXPECT_TRUE(isZero(Label::fromString(c.text))) << c.text;
    EXPECT_EQ(1u,
              capture.countRecord("ERROR [fromString] label deserialization failed: " + c.reason))
        << c.text << "\n"
        << capture.dump();
  }
}

}  // namespace

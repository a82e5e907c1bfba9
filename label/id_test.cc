#include "label/id.h"

#include <gtest/gtest.h>

#include "label/label_error.h"
#include "testing/test_util.h"

namespace {

using zorv_testing::LogCapture;

const std::string kZeroText = "0000000000000000-0000000000000000-0000000000000000";

TEST(IdTest, TextForm) {
  EXPECT_EQ(kZeroText, Id().toString());
  Id id;
  id.pkg_ = 0xab;
  id.file_ = 1;
  EXPECT_EQ("00000000000000ab-0000000000000001-0000000000000000", id.toString());
  id.path_ = 0xffffffffffffffffull;
  EXPECT_EQ(id.path_, Id::fromString(id.toString()).path_);
  EXPECT_EQ(0xabcdefull, Id::fromString("0000000000ABCDEF-0000000000000001-0000000000000002").pkg_);
}

TEST(IdTest, RejectedTextsGiveZeroAndSayWhy) {
  LogCapture capture;
  EXPECT_EQ(kZeroText, Id::fromString(kZeroText.substr(1)).toString());
  EXPECT_EQ(kZeroText, Id::fromString(kZeroText + "0").toString());
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 49"));
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 51"));
  for (const char* text : {"0000000000000001+0000000000000002-0000000000000003",
                           "0000000000000001-0000000000000002:0000000000000003",
                           "0000000000000001-0000000000000002-000000000000003 ",  // trailing blank
                           "10000000000000000-0000000000000002-000000000000003"}) {  // > 64 bits
    EXPECT_EQ(0u, Id::fromString(text).file_) << text;
  }
  EXPECT_EQ(4u, capture.countRecord("ERROR [fromString] Invalid ID format (expect pkg-file-path)"));
}

TEST(IdTest, CompactBytesDropZeroFileAndPath) {
  unsigned char buffer[24] = {};
  Id id;
  id.pkg_ = 0x0102030405060708ull;
  EXPECT_EQ(buffer + 8, id.toBytes(buffer, 8));
  EXPECT_EQ(0x08, buffer[0]);
  EXPECT_EQ(0x01, buffer[7]);
  id.path_ = 0x1112131415161718ull;
  EXPECT_EQ(buffer + 16, id.toBytes(buffer));
  EXPECT_EQ(0x18, buffer[8]);  // the path takes the file's place
  EXPECT_EQ(0x11, buffer[15]);

  LogCapture capture;
  try {
    id.toBytes(buffer, 15);
    FAIL() << "expected a LabelError";
  } catch (const LabelError& e) {
    EXPECT_EQ(3, e.code);
    EXPECT_STREQ("Buffer size is insufficient for ID serialization", e.what());
  }
  EXPECT_EQ(1u, capture.countRecord(
                    "ERROR [toBytes] toBytes: buffer too small, required: 16, actual: 15"));
}

TEST(IdTest, FromBytesReadsTheUncompactedLayout) {
  unsigned char data[24] = {0x01};
  data[9] = 0x02;
  data[23] = 0x03;
  Id id = Id::fromBytes(data);
  EXPECT_EQ("0000000000000001-0000000000000200-0300000000000000", id.toString());
}

}  // namespace

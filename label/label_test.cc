#include "label/label.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "label/id.h"
#include "testing/test_util.h"

namespace {

using zorv_testing::LogCapture;

const std::string kZero = "0000000000000000-0000000000000000-0000000000000000";
const std::string kOid = "0000000000000001-0000000000000002-0000000000000003";
const std::string kSid = "0000000000000004-0000000000000000-0000000000000000";
const std::string kCreator = "00000000000000aa-00000000000000bb-00000000000000cc";

TEST(LabelTextTest, RoundTripsAndLenientParts) {
  EXPECT_EQ(kZero + ":0:" + kZero + ":0:" + kZero, Label().toString());
  const std::string text = kOid + ":12:" + kSid + ":5:" + kCreator;
  EXPECT_EQ(text, Label::fromString(text).toString());
  EXPECT_EQ(0xabcdefull, Id::fromString("0000000000ABCDEF-0000000000000001-0000000000000002").pkg_);
  // Only the low 32 bits of the TID are kept; a sign and trailing text pass.
  EXPECT_EQ(1u, Label::fromString(kOid + ":4294967297:" + kSid + ":0:" + kCreator).tid_);
  EXPECT_EQ(4294967295u, Label::fromString(kOid + ":-1:" + kSid + ":0:" + kCreator).tid_);
  EXPECT_EQ(12u, Label::fromString(kOid + ": 12abc:" + kSid + ":7:" + kCreator).tid_);
  // A newline ends the creator; what follows is ignored.
  EXPECT_EQ(text, Label::fromString(text + "\nx").toString());
}

TEST(LabelTextTest, BadIdentifierZeroesOnlyThatIdentifier) {
  LogCapture capture;
  Label label = Label::fromString(kOid.substr(1) + ":12:" + kSid + ":5:" + kCreator + ":extra");
  EXPECT_EQ(kZero + ":12:" + kSid + ":5:" + kZero, label.toString());  // the creator ran on
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 49"));
  EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] Invalid ID string length: 56"));
  // The right length in the wrong shape, or a part over 64 bits.
  EXPECT_EQ(kZero, Id::fromString("0000000000000001+0000000000000002-0000000000000003").toString());
  EXPECT_EQ(kZero, Id::fromString("10000000000000000-0000000000000002-000000000000003").toString());
  EXPECT_EQ(2u, capture.countRecord("ERROR [fromString] Invalid ID format (expect pkg-file-path)"));
}

TEST(LabelTextTest, FailuresGiveAllZeroAndOneErrorLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "Invalid format: missing OID"},
      {kOid + ":1:" + kSid, "Invalid format: missing inherit flag"},
      {kOid + ":1:" + kSid + ":5:", "Invalid format: missing creator OID"},
      {kOid + "::" + kSid + ":5:" + kCreator, "stoul"},
      {kOid + ":1:" + kSid + ":6:" + kCreator, "Invalid inherit flag value"},
  };
  for (const auto& [text, reason] : cases) {
    LogCapture capture;
    EXPECT_EQ(Label().toString(), Label::fromString(text).toString()) << text;
    EXPECT_EQ(1u, capture.countRecord("ERROR [fromString] label deserialization failed: " + reason))
        << capture.dump();
  }
}

TEST(IdTest, FromBytesReadsTheUncompactedLayout) {
  unsigned char data[24] = {0x01};
  data[9] = 0x02;
  data[23] = 0x03;
  EXPECT_EQ("0000000000000001-0000000000000200-0300000000000000", Id::fromBytes(data).toString());
}

const Label kPackagesOnly{
    {0x0102030405060708ull}, {0x1112131415161718ull}, {0x2122232425262728ull}};
const Label kEverything{{0x1011121314151617ull, 0x2021222324252627ull, 0x3031323334353637ull},
                        {0x4041424344454647ull, 0x5051525354555657ull, 0x6061626364656667ull},
                        {0x7071727374757677ull, 0x8081828384858687ull, 0x9091929394959697ull},
                        0x12345678,
                        7};

std::vector<unsigned char> serialized(const Label& label) {
  std::vector<unsigned char> buffer(label.serializedBufferSize());
  buffer.resize(label.serializeToBuffer(buffer.data(), buffer.size()));
  return buffer;
}

// Expected bytes are written in groups, one per item of the layout.
void expectBytes(std::string grouped, const Label& label) {
  grouped.erase(std::remove(grouped.begin(), grouped.end(), ' '), grouped.end());
  const std::vector<unsigned char> bytes = serialized(label);
  EXPECT_EQ(grouped, bytesToHexString(bytes.data(), bytes.size()));
}

TEST(LabelCodecTest, SmallestAndLargestForms) {
  expectBytes("0807060504030201 1817161514131211 2827262524232221 00", kPackagesOnly);
  expectBytes(
      "1716151413121110 2726252423222120 3736353433323130 4746454443424140 "
      "5756555453525150 6766656463626160 7776757473727170 8786858483828180 "
      "9796959493929190 78563412 07000000 ff",
      kEverything);
  Label label = kPackagesOnly;
  label.oid_.path_ = 0x0a;  // a path without a file takes the file's place
  label.inheritFlag_ = 5;
  expectBytes("0807060504030201 0a00000000000000 1817161514131211 2827262524232221 05000000 44",
              label);

  std::vector<unsigned char> buffer(80, 0xee);  // one byte short: left untouched
  EXPECT_EQ(0u, kEverything.serializeToBuffer(buffer.data(), buffer.size()));
  EXPECT_EQ(std::vector<unsigned char>(80, 0xee), buffer);
}

// Round trips of every layout are the decoding fuzz target's (its corpus runs
// as a test); fields absent from the bytes keep what the label held.
TEST(LabelCodecTest, DecodingKeepsAbsentFields) {
  const std::vector<unsigned char> bytes = serialized(kPackagesOnly);
  Label merged = kEverything, expected = kEverything;
  merged.deserializeFromBuffer(bytes.data(), bytes.size());
  expected.oid_.pkg_ = kPackagesOnly.oid_.pkg_;
  expected.sid_.pkg_ = kPackagesOnly.sid_.pkg_;
  expected.creatorOid_.pkg_ = kPackagesOnly.creatorOid_.pkg_;
  EXPECT_EQ(expected.toString(), merged.toString());
  EXPECT_EQ(kEverything.tid_, merged.tid_);
}

std::string decodeFailure(const std::vector<unsigned char>& bytes, Label& label) {
  try {
    label.deserializeFromBuffer(bytes.empty() ? nullptr : bytes.data(), bytes.size());
  } catch (const LabelError& e) {
    EXPECT_EQ(13, e.code);
    return e.what();
  }
  return "no error";
}

TEST(LabelCodecTest, DecodeFailuresAreCode13) {
  const std::string prefix = "Label deserialization failed: ";
  Label label;
  EXPECT_EQ(prefix + "Buffer pointer is null", decodeFailure({}, label));
  EXPECT_EQ(prefix + "Buffer size is invalid",
            decodeFailure(std::vector<unsigned char>(24), label));
  EXPECT_EQ(prefix + "Buffer size is invalid",
            decodeFailure(std::vector<unsigned char>(82), label));
  // The OID file part is announced, so the creator's package no longer fits.
  std::vector<unsigned char> bytes(25, 0x01);
  bytes.back() = 0x80;
  EXPECT_EQ(prefix + "Buffer too small for required data", decodeFailure(bytes, label));
  bytes.assign(80, 0);  // everything announced, one byte short
  bytes.back() = 0xff;
  EXPECT_EQ(prefix + "Buffer too small for required data", decodeFailure(bytes, label));
}

}  // namespace

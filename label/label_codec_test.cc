#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "label/label.h"
#include "testing/test_util.h"

namespace {

using zorv_testing::LogCapture;

Label packagesOnly() {
  Label label;
  label.oid_.pkg_ = 0x0102030405060708ull;
  label.sid_.pkg_ = 0x1112131415161718ull;
  label.creatorOid_.pkg_ = 0x2122232425262728ull;
  return label;
}

Label everything() {
  Label label;
  label.oid_ = {0x1011121314151617ull, 0x2021222324252627ull, 0x3031323334353637ull};
  label.sid_ = {0x4041424344454647ull, 0x5051525354555657ull, 0x6061626364656667ull};
  label.creatorOid_ = {0x7071727374757677ull, 0x8081828384858687ull, 0x9091929394959697ull};
  label.tid_ = 0x12345678;
  label.inheritFlag_ = 7;
  return label;
}

std::vector<unsigned char> serialized(const Label& label) {
  std::vector<unsigned char> buffer(label.serializedBufferSize());
  buffer.resize(label.serializeToBuffer(buffer.data(), buffer.size()));
  return buffer;
}

std::string hex(const std::vector<unsigned char>& bytes) {
  return bytesToHexString(bytes.data(), bytes.size());
}

// Expected bytes are written in groups, one per item of the layout.
std::string ungrouped(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  return hex;
}

TEST(LabelCodecTest, SmallestAndLargestForms) {
  const unsigned char twoBytes[] = {0x00, 0xab};
  EXPECT_EQ("00ab", bytesToHexString(twoBytes, 2));
  EXPECT_EQ(ungrouped("0807060504030201 1817161514131211 2827262524232221 00"),
            hex(serialized(packagesOnly())));

  LogCapture capture;
  std::vector<unsigned char> bytes = serialized(everything());
  EXPECT_EQ(ungrouped("1716151413121110 2726252423222120 3736353433323130 4746454443424140 "
                      "5756555453525150 6766656463626160 7776757473727170 8786858483828180 "
                      "9796959493929190 78563412 07000000 ff"),
            hex(bytes));
  EXPECT_EQ(1u, capture.countRecord("DEBUG [serializeToBuffer] Serialized tid_: 78563412"));
  EXPECT_EQ(1u, capture.countRecord("DEBUG [serializeToBuffer] Serialized state: ff"));
  Label().deserializeFromBuffer(bytes.data(), bytes.size());
  const std::string decoded = "DEBUG [deserializeFromBuffer] Label deserialization: ";
  EXPECT_EQ(1u, capture.countRecord(decoded + "state: ff"));
  EXPECT_EQ(1u, capture.countRecord(decoded + "tid: 12345678"));
}

TEST(LabelCodecTest, PathWithoutFileFollowsThePackage) {
  Label label = packagesOnly();
  label.oid_.path_ = 0x0a;
  label.inheritFlag_ = 5;
  EXPECT_EQ(
      ungrouped("0807060504030201 0a00000000000000 1817161514131211 2827262524232221 05000000 44"),
      hex(serialized(label)));
}

TEST(LabelCodecTest, SerializeRefusesShortOrNullBuffers) {
  std::vector<unsigned char> buffer(80, 0xee);
  LogCapture capture;
  EXPECT_EQ(0u, everything().serializeToBuffer(buffer.data(), buffer.size()));
  EXPECT_EQ(std::vector<unsigned char>(80, 0xee), buffer);
  EXPECT_EQ(0u, everything().serializeToBuffer(nullptr, 81));
  EXPECT_EQ((std::vector<std::string>{
                "ERROR [serializeToBuffer] Buffer size is insufficient. Required: 81, provided: 80",
                "ERROR [serializeToBuffer] Buffer pointer is null"}),
            capture.records());
}

TEST(LabelCodecTest, DecodingFillsOnlyThePresentFields) {
  Label sparse = packagesOnly();
  sparse.oid_.path_ = 9;
  sparse.sid_.path_ = 8;
  sparse.creatorOid_.file_ = 7;
  sparse.inheritFlag_ = 5;
  for (const Label& original : {packagesOnly(), everything(), sparse}) {
    std::vector<unsigned char> bytes = serialized(original);
    Label decoded;
    EXPECT_EQ(original.toString(),
              decoded.deserializeFromBuffer(bytes.data(), bytes.size()).toString());
    EXPECT_EQ(original.toString(), decoded.toString());
  }

  // Absent parts keep what the label held; bytes no state bit accounts for
  // are passed over.
  std::vector<unsigned char> bytes = serialized(packagesOnly());
  bytes.insert(bytes.end() - 1, 3, 0x5a);
  Label label = everything();
  label.deserializeFromBuffer(bytes.data(), bytes.size());
  EXPECT_EQ(0x0102030405060708ull, label.oid_.pkg_);
  EXPECT_EQ(0x2021222324252627ull, label.oid_.file_);
  EXPECT_EQ(0x12345678u, label.tid_);
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

  // The OID file part is announced, so the creator's package no longer fits;
  // what was read before that stays in the label.
  std::vector<unsigned char> bytes(25, 0x01);
  bytes.back() = 0x80;
  EXPECT_EQ(prefix + "Buffer too small for required data", decodeFailure(bytes, label));
  EXPECT_EQ(0x0101010101010101ull, label.sid_.pkg_);
  EXPECT_EQ(0u, label.creatorOid_.pkg_);

  bytes.assign(80, 0);  // everything announced, one byte short
  bytes.back() = 0xff;
  EXPECT_EQ(prefix + "Buffer too small for required data", decodeFailure(bytes, label));
}

}  // namespace

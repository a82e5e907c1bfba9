#include <gtest/gtest.h>

#include <vector>

#include "label/label.h"
#include "label/log_record_test_internal.h"

namespace {

using zorv_testing::LogCapture;

Id makeId(uint64_t pkg, uint64_t file, uint64_t path) {
  Id id;
  id.pkg_ = pkg;
  id.file_ = file;
  id.path_ = path;
  return id;
}

Label packagesOnly() {
  Label label;
  label.oid_ = makeId(0x0102030405060708ull, 0, 0);
  label.sid_ = makeId(0x1112131415161718ull, 0, 0);
  label.creatorOid_ = makeId(0x2122232425262728ull, 0, 0);
  return label;
}

Label everything() {
  Label label;
  label.oid_ = makeId(0x1011121314151617ull, 0x2021222324252627ull, 0x3031323334353637ull);
  label.sid_ = makeId(0x4041424344454647ull, 0x5051525354555657ull, 0x6061626364656667ull);
  label.creatorOid_ = makeId(0x7071727374757677ull, 0x8081828384858687ull, 0x9091929394959697ull);
  label.tid_ = 0x12345678;
  label.inheritFlag_ = 7;
  return label;
}

std::string serializedHex(const Label& label) {
  std::vector<unsigned char> buffer(label.serializedBufferSize());
  size_t written = label.serializeToBuffer(buffer.data(), buffer.size());
  return bytesToHexString(buffer.data(), written);
}

void expectSameFields(const Label& expected, const Label& actual) {
  EXPECT_EQ(expected.toString(), actual.toString());
}

TEST(LabelCodecTest, HexText) {
  const unsigned char bytes[] = {0x00, 0xab};
  EXPECT_EQ("00ab", bytesToHexString(bytes, 2));
  EXPECT_EQ("", bytesToHexString(bytes, 0));
}

TEST(LabelCodecTest, SmallestAndLargestForms) {
  EXPECT_EQ(25u, packagesOnly().serializedBufferSize());
  EXPECT_EQ(
      "0807060504030201"
      "1817161514131211"
      "2827262524232221"
      "00",
      serializedHex(packagesOnly()));

  LogCapture capture;
  EXPECT_EQ(81u, everything().serializedBufferSize());
  EXPECT_EQ(
      "1716151413121110"
      "2726252423222120"
      "3736353433323130"
      "4746454443424140"
      "5756555453525150"
      "6766656463626160"
      "7776757473727170"
      "8786858483828180"
      "9796959493929190"
      "78563412"
      "07000000"
      "ff",
      serializedHex(everything()));
  EXPECT_EQ(1u, countRecords(capture, "DEBUG", "serializeToBuffer", "Serialized tid_: 78563412"));
  EXPECT_EQ(1u, countRecords(capture, "DEBUG", "serializeToBuffer", "Serialized state: ff"));
}

TEST(LabelCodecTest, StateByteNamesTheDroppedPart) {
  Label label = packagesOnly();
  label.oid_.path_ = 0x0a;  // path without file: it follows the package directly
  label.inheritFlag_ = 5;
  EXPECT_EQ(
      "0807060504030201"
      "0a00000000000000"
      "1817161514131211"
      "2827262524232221"
      "05000000"
      "44",
      serializedHex(label));

  label = packagesOnly();
  label.sid_.file_ = 0x0b;
  label.creatorOid_.path_ = 0x0c;
  label.tid_ = 1;
  EXPECT_EQ("31", serializedHex(label).substr(2 * 44));
}

TEST(LabelCodecTest, SerializeRefusesShortOrNullBuffers) {
  unsigned char buffer[81];
  std::fill(buffer, buffer + sizeof(buffer), 0xee);
  LogCapture capture;
  EXPECT_EQ(0u, everything().serializeToBuffer(buffer, 80));
  EXPECT_EQ(std::vector<unsigned char>(81, 0xee), std::vector<unsigned char>(buffer, buffer + 81));
  EXPECT_EQ(1u, countRecords(capture, "ERROR", "serializeToBuffer",
                             "Buffer size is insufficient. Required: 81, provided: 80"));
  EXPECT_EQ(0u, everything().serializeToBuffer(nullptr, 81));
  EXPECT_EQ(1u, countRecords(capture, "ERROR", "serializeToBuffer", "Buffer pointer is null"));
}

TEST(LabelCodecTest, RoundTripsIntoZeroedLabel) {
  Label pathOnly = packagesOnly();
  pathOnly.oid_.path_ = 9;
  pathOnly.sid_.path_ = 8;
  pathOnly.creatorOid_.file_ = 7;
  pathOnly.inheritFlag_ = 5;
  for (const Label& original : {packagesOnly(), everything(), pathOnly, Label()}) {
    std::vector<unsigned char> buffer(original.serializedBufferSize());
    ASSERT_EQ(buffer.size(), original.serializeToBuffer(buffer.data(), buffer.size()));
    Label decoded;
    expectSameFields(original, decoded.deserializeFromBuffer(buffer.data(), buffer.size()));
    expectSameFields(original, decoded);
  }
}

TEST(LabelCodecTest, DecodeLogsStateAndTid) {
  std::vector<unsigned char> buffer(81);
  everything().serializeToBuffer(buffer.data(), buffer.size());
  LogCapture capture;
  Label().deserializeFromBuffer(buffer.data(), buffer.size());
  EXPECT_EQ(1u, countRecords(capture, "DEBUG", "deserializeFromBuffer",
                             "Label deserialization: state: ff"));
  EXPECT_EQ(1u, countRecords(capture, "DEBUG", "deserializeFromBuffer",
                             "Label deserialization: tid: 12345678"));
}

TEST(LabelCodecTest, AbsentFieldsKeepTheirValuesAndSlackIsIgnored) {
  std::vector<unsigned char> buffer(25);
  packagesOnly().serializeToBuffer(buffer.data(), buffer.size());
  buffer.insert(buffer.end() - 1, 3, 0x5a);  // bytes no state bit accounts for

  Label label = everything();
  label.deserializeFromBuffer(buffer.data(), buffer.size());
  EXPECT_EQ(0x0102030405060708ull, label.oid_.pkg_);
  EXPECT_EQ(0x2021222324252627ull, label.oid_.file_);
  EXPECT_EQ(0x12345678u, label.tid_);
  EXPECT_EQ(7u, label.inheritFlag_);
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
  Label label;
  EXPECT_EQ("Label deserialization failed: Buffer pointer is null", decodeFailure({}, label));
  EXPECT_EQ("Label deserialization failed: Buffer size is invalid",
            decodeFailure(std::vector<unsigned char>(24), label));
  EXPECT_EQ("Label deserialization failed: Buffer size is invalid",
            decodeFailure(std::vector<unsigned char>(82), label));

  // The OID file part is announced, so the creator's package no longer fits;
  // what was read before that stays in the label.
  std::vector<unsigned char> bytes(25, 0x01);
  bytes.back() = 0x80;
  EXPECT_EQ("Label deserialization failed: Buffer too small for required data",
            decodeFailure(bytes, label));
  EXPECT_EQ(0x0101010101010101ull, label.oid_.file_);
  EXPECT_EQ(0x0101010101010101ull, label.sid_.pkg_);
  EXPECT_EQ(0u, label.creatorOid_.pkg_);

  // Every optional item announced, but only 80 bytes in all.
  bytes.assign(80, 0);
  bytes.back() = 0xff;
  EXPECT_EQ("Label deserialization failed: Buffer too small for required data",
            decodeFailure(bytes, label));
}

}  // namespace

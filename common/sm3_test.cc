#include "common/sm3.h"

#include <gtest/gtest.h>

namespace {

TEST(Sm3Test, DigestsOfKnownInputs) {
  EXPECT_EQ("66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0",
            getSM3HashValue("abc"));
  EXPECT_EQ("1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b",
            getSM3HashValue(""));
  // The whole string is hashed, embedded zero bytes included.
  EXPECT_NE(getSM3HashValue("a"), getSM3HashValue(std::string("a\0b", 3)));
}

TEST(Sm3Test, TrailingBitsReadTheDigestBigEndian) {
  EXPECT_EQ(0x297DA02B8F4BA8E0ull, getSM3HashLast64Bits("abc"));
  EXPECT_EQ(0x8F4BA8E0u, getSM3HashLast32Bits("abc"));
  EXPECT_EQ(0x7ed035eb5082aa2bull, getSM3HashLast64Bits(""));
}

TEST(Sm3Test, KmodNameHashWidensBytesWithTheirSign) {
  EXPECT_EQ(0x811C9DC5u, getKmodNameHash(nullptr, 0));
  EXPECT_EQ(0xE40C292Cu, getKmodNameHash("a", 1));
  EXPECT_EQ(0xF9F3A14Eu, getKmodNameHash("\xff", 1));  // not the unsigned-byte 0x7A0B824E
  // Exactly `length` bytes: a zero byte is hashed, text past the length is not.
  EXPECT_NE(getKmodNameHash("a", 1), getKmodNameHash("a\0", 2));
  EXPECT_EQ(getKmodNameHash("a", 1), getKmodNameHash("ab", 1));
}

}  // namespace

#include "common/sm3.h"

#include <gtest/gtest.h>

#include <string>

TEST(Sm3Test, DigestsAndTheirTrailingBits) {
  // The two test vectors of the standard, and the empty text.
  EXPECT_EQ("66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0",
            getSM3HashValue("abc"));
  std::string abcd;
  for (int i = 0; i < 16; ++i) abcd += "abcd";
  EXPECT_EQ("debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732",
            getSM3HashValue(abcd));
  EXPECT_EQ("1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b",
            getSM3HashValue(""));
  EXPECT_EQ(0x297DA02B8F4BA8E0ull, getSM3HashLast64Bits("abc"));  // read big-endian
  EXPECT_EQ(0x8F4BA8E0u, getSM3HashLast32Bits("abc"));
}

TEST(Sm3Test, KmodNameHashWidensBytesWithTheirSign) {
  EXPECT_EQ(0xF9F3A14Eu, getKmodNameHash("\xff", 1));  // not the unsigned-byte 0x7A0B824E
  EXPECT_EQ(getKmodNameHash("a", 1), getKmodNameHash("ab", 1));
}

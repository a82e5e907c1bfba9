#include "common/sm3.h"

#include <gtest/gtest.h>

TEST(Sm3Test, DigestsAndTheirTrailingBits) {
  EXPECT_EQ("66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0",
            getSM3HashValue("abc"));
  EXPECT_EQ("1ab21d8355cfa17f8e61194831e81a8f22bec8c728fefb747ed035eb5082aa2b",
            getSM3HashValue(""));
  EXPECT_EQ(0x297DA02B8F4BA8E0ull, getSM3HashLast64Bits("abc"));  // read big-endian
}

TEST(Sm3Test, KmodNameHashWidensBytesWithTheirSign) {
  EXPECT_EQ(0xF9F3A14Eu, getKmodNameHash("\xff", 1));  // not the unsigned-byte 0x7A0B824E
  EXPECT_EQ(getKmodNameHash("a", 1), getKmodNameHash("ab", 1));
}

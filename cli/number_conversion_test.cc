#include "cli/number_conversion.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace zorv::cli {
namespace {

TEST(NumberConversionTest, ReadsHexWordsAsStrtoullDoes) {
  struct Case {
    const char* word;
    uint64_t as64;
    uint32_t as32;
  };
  const Case cases[] = {
      {"1a", 0x1a, 0x1a},
      {"0x1F", 0x1f, 0x1f},
      {"  10", 0x10, 0x10},
      {"ffffffffffffffff", UINT64_MAX, UINT32_MAX},
      {"100000003", 0x100000003, 3},  // narrowed, not refused
      {"-1", UINT64_MAX, UINT32_MAX},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(toUnsigned64(c.word, 16), c.as64) << c.word;
    EXPECT_EQ(toUnsigned32(c.word, 16), c.as32) << c.word;
  }
}

}  // namespace
}  // namespace zorv::cli

#include "cli/number_conversion.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
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

// What the run prints just before it ends: the report, then the same exception.
template <typename Exception>
std::string reportOf(uint64_t (*convert)(const std::string&), const std::string& word) {
  testing::internal::CaptureStderr();
  try {
    convert(word);
    ADD_FAILURE() << "no exception for " << word;
  } catch (const Exception& e) {
    return testing::internal::GetCapturedStderr() + "|" + e.what();
  } catch (...) {
    ADD_FAILURE() << "wrong exception type for " << word;
  }
  return testing::internal::GetCapturedStderr();
}

uint64_t to32(const std::string& w) { return toUnsigned32(w, 16); }
uint64_t to64(const std::string& w) { return toUnsigned64(w, 16); }

TEST(NumberConversionTest, BadWordsAreReportedAndRethrown) {
  EXPECT_EQ(reportOf<std::invalid_argument>(to32, "zz"), "Invalid argument: stoul\n|stoul");
  EXPECT_EQ(reportOf<std::invalid_argument>(to64, ""), "Invalid argument: stoull\n|stoull");
  EXPECT_EQ(reportOf<std::invalid_argument>(to32, "1g"),
            "Invalid argument: Conversion failed due to invalid characters in the string.\n"
            "|Conversion failed due to invalid characters in the string.");
  EXPECT_EQ(reportOf<std::out_of_range>(to64, "10000000000000000"),
            "Out of Range error: stoull\n|stoull");
  EXPECT_EQ(reportOf<std::out_of_range>(to32, "10000000000000000"),
            "Out of Range error: stoul\n|stoul");
}

}  // namespace
}  // namespace zorv::cli

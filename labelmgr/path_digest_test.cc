#include "labelmgr/path_digest.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/sm3.h"

namespace {

// The tree walk's digest (one reused context per thread) must equal what
// restore computes through the common helper, across 64-byte block edges.
TEST(PathDigestTest, AgreesWithTheCommonHelper) {
  using zorv::labelmgr::sm3Last64Bits;
  EXPECT_EQ(0x297DA02B8F4BA8E0u, sm3Last64Bits("abc"));
  std::vector<std::string> inputs = {"", "/", std::string("a\0b", 3)};
  std::mt19937 random(7);
  for (size_t length : {55, 56, 64, 65, 4097}) {
    std::string text(length, '\0');
    for (char& c : text) c = static_cast<char>(random());
    inputs.push_back(text);
  }
  for (const std::string& text : inputs)
    EXPECT_EQ(getSM3HashLast64Bits(text), sm3Last64Bits(text)) << "length " << text.size();
}

}  // namespace

#include "labelmgr/path_digest.h"

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/sm3.h"

namespace {

using zorv::labelmgr::sm3Last64Bits;

// Labels written by the whole-tree walk must equal those restore writes
// through the common library's helper, for any bytes and across the digest's
// 64-byte block boundaries.
TEST(PathDigestTest, AgreesWithTheCommonHelper) {
  EXPECT_EQ(0x297DA02B8F4BA8E0u, sm3Last64Bits("abc"));
  std::vector<std::string> inputs = {"", "/", std::string("a\0b", 3)};
  std::mt19937 random(7);
  for (size_t length : {1, 55, 56, 63, 64, 65, 119, 128, 4097}) {
    std::string text(length, '\0');
    for (char& c : text) c = static_cast<char>(random());
    inputs.push_back(text);
  }
  for (const std::string& text : inputs) {
    EXPECT_EQ(getSM3HashLast64Bits(text), sm3Last64Bits(text)) << "length " << text.size();
  }
}

TEST(PathDigestTest, ThreadsDoNotShareState) {
  auto work = [](int seed, bool* ok) {
    *ok = true;
    for (int i = 0; i < 2000; ++i) {
      std::string text = "/tree/" + std::to_string(seed) + "/" + std::to_string(i);
      if (i % 100 == 0)
        *ok = *ok && sm3Last64Bits(text) == getSM3HashLast64Bits(text);
      else
        sm3Last64Bits(text);
    }
  };
  bool ok[4];
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(work, t, &ok[t]);
  for (std::thread& thread : threads) thread.join();
  for (bool each : ok) EXPECT_TRUE(each);
}

}  // namespace

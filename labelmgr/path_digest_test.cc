#include "labelmgr/path_digest.h"

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/label_policy.h"
#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

using zorv::labelmgr::sm3Last64Bits;

// The tree walk's digest (one reused context per thread) must equal what
// restore computes through the common helper, across 64-byte block edges.
TEST(PathDigestTest, AgreesWithTheCommonHelper) {
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

class LabelPolicyTest : public LabelMgrTest {};

// The policy remembers name digests in a small table: more names than it
// holds, twice over, names at its length limit and two threads at once must
// still each get the digest of the name itself.
TEST_F(LabelPolicyTest, NameDigestCacheFromTwoThreads) {
  std::unique_ptr<zorv::labelmgr::LabelPolicy> policy = zorv::labelmgr::LabelPolicy::load(nullptr);
  ASSERT_TRUE(policy);
  std::vector<std::string> names = {std::string(46, 'x'), std::string(47, 'x'),
                                    std::string(46, 'y'), ""};
  for (int i = 0; i < 9000; ++i) names.push_back("n" + std::to_string(i * 7919));
  auto sweep = [&](const std::string& dir, bool* ok) {
    *ok = true;
    for (int pass = 0; pass < 2; ++pass)
      for (const std::string& name : names) {
        const std::string path = dir + std::to_string(pass) + "/" + name;
        const Id oid = policy->policyOid(path);
        *ok = *ok && oid.file_ == getSM3HashLast64Bits(name) &&
              oid.path_ == getSM3HashLast64Bits(path);
      }
  };
  bool ok[2];
  std::thread other(sweep, "/b", &ok[1]);
  sweep("/a", &ok[0]);
  other.join();
  EXPECT_TRUE(ok[0] && ok[1]);
}

}  // namespace
}  // namespace zorv_testing

#include "labelmgr/label_policy.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/sm3.h"
#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

namespace lm = zorv::labelmgr;

class LabelPolicyTest : public LabelMgrTest {};

// The file part of the OID is remembered per name; whatever the order of
// names, their lengths or the threads asking, it must stay the digest of the
// name itself.
TEST_F(LabelPolicyTest, FileDigestIsAlwaysThatOfTheName) {
  std::unique_ptr<lm::LabelPolicy> policy = lm::LabelPolicy::load(nullptr);
  ASSERT_TRUE(policy);
  auto check = [&](const std::string& dir, const std::string& name) {
    Id oid = policy->policyOid(dir + "/" + name);
    return oid.file_ == getSM3HashLast64Bits(name) &&
           oid.path_ == getSM3HashLast64Bits(dir + "/" + name);
  };
  // More names than are remembered, twice over, so that names meet both
  // their own earlier answer and other names in the same place.
  std::vector<std::string> names;
  for (int i = 0; i < 9000; ++i) names.push_back("n" + std::to_string(i * 7919));
  names.push_back(std::string(46, 'x'));
  names.push_back(std::string(47, 'x'));
  names.push_back(std::string(46, 'y'));
  names.push_back("");
  auto sweep = [&](const std::string& dir, bool* ok) {
    *ok = true;
    for (int pass = 0; pass < 2; ++pass)
      for (const std::string& name : names) *ok = *ok && check(dir + std::to_string(pass), name);
  };
  bool ok[2];
  std::thread other(sweep, "/b", &ok[1]);
  sweep("/a", &ok[0]);
  other.join();
  EXPECT_TRUE(ok[0]);
  EXPECT_TRUE(ok[1]);
  EXPECT_EQ(getSM3HashLast64Bits("/"), policy->policyOid("/").file_);
}

}  // namespace
}  // namespace zorv_testing

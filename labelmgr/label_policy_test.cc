// Where each field of an effective label comes from, on real files with a
// fake dpkg database and rules set through the library.
#include "labelmgr/label_policy.h"

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

namespace lm = zorv::labelmgr;

class LabelPolicyTest : public LabelMgrTest {
 protected:
  // The policy as restore loads it, and the evaluation of `path`.
  lm::LabelEvaluation evaluate(const std::string& path) {
    std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kReadOnly);
    policy_ = lm::LabelPolicy::loadFor(db.get(), {path});
    EXPECT_NE(nullptr, policy_);
    struct stat st;
    EXPECT_EQ(0, lstat(path.c_str(), &st));
    lm::LabelEvaluation result = policy_->evaluate(path, st);
    EXPECT_EQ(policy_->effectiveLabel(path, st).toString(), result.label.toString());
    return result;
  }
  std::string describe(const lm::LabelEvaluation& evaluation, lm::Field field) const {
    return policy_->describe(evaluation, field);
  }

  std::unique_ptr<lm::LabelPolicy> policy_;
};

TEST_F(LabelPolicyTest, EachFieldNamesItsSource) {
  std::string plain = makeFile("etc/plain.conf");
  std::string tool = makeFile("bin/alpha-tool", 0755);

  // The default policy alone: digests, or zero.
  lm::LabelEvaluation result = evaluate(plain);
  for (lm::Field field :
       {lm::Field::kOid, lm::Field::kSid, lm::Field::kTid, lm::Field::kInheritFlag}) {
    EXPECT_EQ(lm::ValueSource::kDefault, result.source[static_cast<int>(field)]);
    EXPECT_EQ("default policy", describe(result, field));
  }
  EXPECT_EQ(policyOid(plain, 0).toString(), result.label.oid_.toString());

  // The owning package decides the OID and, for an executable, the SID.
  result = evaluate(tool);
  EXPECT_EQ("package alpha", describe(result, lm::Field::kOid));
  EXPECT_EQ("package alpha", describe(result, lm::Field::kSid));
  EXPECT_EQ("default policy", describe(result, lm::Field::kTid));
  EXPECT_EQ(getSM3HashLast64Bits("alpha"), result.label.sid_.pkg_);

  // An exact rule wins over a pattern rule set later; the pattern decides
  // the fields the exact rule leaves alone.
  ASSERT_EQ(0, setFileTid(tool.c_str(), 0xc, 0));
  std::string pattern = root_ + "/bin/*";
  ASSERT_EQ(0, setFileTid(pattern.c_str(), 0xd, 1));
  ASSERT_EQ(0, setFileInheritFlag(pattern.c_str(), 5, 1));
  result = evaluate(tool);
  EXPECT_EQ(lm::ValueSource::kExactRule, result.source[static_cast<int>(lm::Field::kTid)]);
  EXPECT_EQ("exact rule", describe(result, lm::Field::kTid));
  EXPECT_EQ(0xcu, result.label.tid_);
  EXPECT_EQ("pattern rule " + pattern, describe(result, lm::Field::kInheritFlag));
  EXPECT_EQ(5u, result.label.inheritFlag_);
  EXPECT_EQ("package alpha", describe(result, lm::Field::kOid));
}

}  // namespace
}  // namespace zorv_testing

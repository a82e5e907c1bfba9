#include "labelmgr/exclude_rules.h"

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace zorv_testing {
namespace {

TEST(ExcludeRulesTest, ReadsGlobsAndReportsMalformedLines) {
  ScopedTempDir dir;
  writeTextFile(dir / "10-local",
                "# scratch space\n\n  /srv/cache/  \n/home/*/.cache\nrelative/*\n/a/[bc\n/a//b\n");
  writeTextFile(dir / ".hidden", "/everything\n");
  zorv::labelmgr::ExcludeRules rules;
  std::vector<std::string> problems;
  ASSERT_TRUE(rules.load(dir.path(), &problems));
  EXPECT_EQ((std::vector<std::string>{"/srv/cache", "/home/*/.cache"}), rules.globs());
  EXPECT_EQ((std::vector<std::string>{dir / "10-local:5: not an absolute path",
                                      dir / "10-local:6: a \"[\" set that is never closed",
                                      dir / "10-local:7: an empty, \".\" or \"..\" component"}),
            problems);

  EXPECT_NE(nullptr, rules.matching("/srv/cache"));
  EXPECT_EQ(nullptr, rules.matching("/srv/cache/x"));  // the walk never enters it
  EXPECT_NE(nullptr, rules.covering("/srv/cache/x"));
  EXPECT_NE(nullptr, rules.matching("/home/ann/.cache"));
  EXPECT_EQ(nullptr, rules.covering("/srv/cached"));

  std::string reason;
  EXPECT_TRUE(rules.add("/a/[]b]", &reason));  // a ']' first is a member
  EXPECT_NE(nullptr, rules.matching("/a/]"));
  EXPECT_TRUE(zorv::labelmgr::ExcludeRules().load(dir / "missing", nullptr));
}

}  // namespace
}  // namespace zorv_testing

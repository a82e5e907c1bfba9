#include "common/wildcard.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(ContainsWildcardTest, AnEscapeHidesOneCharacter) {
  EXPECT_FALSE(containsWildcard("a\\[b\\]trailing\\"));
  EXPECT_TRUE(containsWildcard("a]b"));
  EXPECT_TRUE(containsWildcard("a\\\\*"));  // the backslash is escaped, the star is not
}

TEST(WildcardMatchTest, BothNamesShareOneMatcher) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"a*b?c", "axxbyc", true},
      {"/var/*", "/var/log/x/y", true},
      {"[ab]", "a", false},  // brackets and backslashes are plain bytes here
      // Equality is tried before the star: the text's '*' is consumed as a
      // literal and no star is remembered for it.
      {"*a", "*ba", false},
      {"*a", "xba", true},
  };
  for (const auto& [pattern, text, match] : cases) {
    EXPECT_EQ(match, wildcardMatch(pattern, text)) << pattern << " ~ " << text;
    EXPECT_EQ(match, matchesPattern(pattern, text)) << pattern << " ~ " << text;
  }
  EXPECT_TRUE(matchesPattern1("a\\xyz", "a\\*"));  // fnmatch without escapes
  EXPECT_FALSE(matchesPattern1("a*", "a\\*"));
}

TEST(SearchFilesByPatternTest, ExpandsTildeAndBracketsAndLogsFailures) {
  ScopedTempDir dir;
  for (const char* name : {"a.log", ".hidden.log", "c.txt"}) writeTextFile(dir / name, "");
  EXPECT_EQ(std::vector<std::string>{dir / "a.log"}, searchFilesByPattern(dir / "*.log"));
  zorv_testing::ScopedEnv home("HOME", dir.path());
  EXPECT_EQ(std::vector<std::string>{dir / "c.txt"}, searchFilesByPattern("~/[c].txt"));

  LogCapture capture;
  EXPECT_TRUE(searchFilesByPattern(dir / "*.none").empty());
  EXPECT_TRUE(searchFilesByPattern(dir / "../*").empty());
  EXPECT_EQ((std::vector<std::string>{
                "ERROR [searchFilesByPattern] No matches found.",
                "ERROR [searchFilesByPattern] Unsafe pattern detected: " + (dir / "../*")}),
            capture.records());
}

TEST(WildcardTextTest, ParentDirectoryAndRegex) {
  for (const auto& [pattern, parent] : {std::pair<const char*, const char*>{"/var/lo?/x", "/var"},
                                        {"/a/[b]/c", "/a/[b]"},  // brackets are no wildcards
                                        {"x?/y", "/"},           // even for a relative pattern
                                        {"/a/b/", "/a"},
                                        {"/", ""}})
    EXPECT_EQ(parent, getParentDirWithoutWildcard(pattern)) << pattern;
  EXPECT_EQ("file(a|b)\\.[^c].*", wildcardsToRegex("file{a,b}.[!c]*"));
  EXPECT_EQ("(a|(b|c)}", wildcardsToRegex("{a,{b,c}}"));  // braces do not nest
  EXPECT_EQ("*.x", wildcardsToRegex("\\*\\.x\\"));        // a trailing backslash vanishes
}

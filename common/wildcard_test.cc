#include "common/wildcard.h"

#include <stdlib.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::makeDirs;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

std::vector<std::string> records(LogCapture& capture) {
  static const std::regex line(":[0-9]+\\]");
  std::vector<std::string> out;
  for (const std::string& r : capture.lines()) out.push_back(std::regex_replace(r, line, "]"));
  return out;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// Restores an environment variable on the way out.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    const char* old = getenv(name);
    hadValue_ = old != nullptr;
    if (hadValue_) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (hadValue_)
      setenv(name_, old_.c_str(), 1);
    else
      unsetenv(name_);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  bool hadValue_ = false;
  std::string old_;
};

}  // namespace

TEST(ContainsWildcardTest, EscapesHideOneCharacter) {
  EXPECT_FALSE(containsWildcard(""));
  EXPECT_FALSE(containsWildcard("/plain/path"));
  EXPECT_FALSE(containsWildcard("a\\*b"));
  EXPECT_FALSE(containsWildcard("a\\[b\\]"));
  EXPECT_FALSE(containsWildcard("trailing\\"));
  EXPECT_TRUE(containsWildcard("a]b"));
  EXPECT_TRUE(containsWildcard("a?"));
  EXPECT_TRUE(containsWildcard("a\\\\*"));  // the backslash is escaped, the star is not
  EXPECT_TRUE(containsWildcard("\\a*"));
}

TEST(IsPatternSafeTest, Limits) {
  EXPECT_FALSE(isPatternSafe(""));
  EXPECT_TRUE(isPatternSafe("/" + std::string(1023, 'a')));
  EXPECT_FALSE(isPatternSafe("/" + std::string(1024, 'a')));

  EXPECT_TRUE(isPatternSafe("/" + std::string(50, '*')));
  EXPECT_FALSE(isPatternSafe("/" + std::string(51, '*')));
  // '?' and '[' count towards the same limit, ']' does not.
  EXPECT_FALSE(isPatternSafe("/" + std::string(25, '?') + std::string(26, '[')));
  EXPECT_TRUE(isPatternSafe("/" + std::string(50, '?') + std::string(10, ']')));

  std::string twenty;
  for (int i = 0; i < 20; ++i) twenty += "/d";
  EXPECT_TRUE(isPatternSafe(twenty));
  EXPECT_FALSE(isPatternSafe(twenty + "/"));

  EXPECT_FALSE(isPatternSafe("/a/../b"));
  EXPECT_FALSE(isPatternSafe("/a/b..c"));
  EXPECT_FALSE(isPatternSafe("/a/./b"));
  EXPECT_FALSE(isPatternSafe("/a//b"));
  EXPECT_TRUE(isPatternSafe("/a/.b/*.log"));
}

TEST(WildcardMatchTest, BothNamesShareOneMatcher) {
  struct Case {
    const char* pattern;
    const char* text;
    bool match;
  };
  const Case cases[] = {
      {"", "", true},
      {"", "a", false},
      {"*", "", true},
      {"**", "", true},
      {"?", "", false},
      {"a*b?c", "axxbyc", true},
      {"?", "/", true},
      {"/var/*", "/var/log/x/y", true},  // '*' crosses slashes
      {"*ab", "aab", true},              // the remembered star backtracks
      {"a*b*c", "abxbxc", true},
      {"a*c", "abcd", false},
      {"A", "a", false},
      {"[ab]", "a", false},  // brackets are plain bytes here
      {"[ab]", "[ab]", true},
      {"a\\*", "a\\xyz", true},  // so is the backslash
      {"a\\*", "a*", false},
      // Equality is tried before the star: the text's '*' is consumed as a
      // literal and no star is remembered for it.
      {"*a", "*ba", false},
      {"*a", "xba", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.match, wildcardMatch(c.pattern, c.text)) << c.pattern << " ~ " << c.text;
    EXPECT_EQ(c.match, matchesPattern(c.pattern, c.text)) << c.pattern << " ~ " << c.text;
  }
}

TEST(MatchesPattern1Test, UsesFnmatchWithoutEscapes) {
  EXPECT_TRUE(matchesPattern1("/etc/a.conf", "/etc/[ab].conf"));
  EXPECT_FALSE(matchesPattern1("/etc/c.conf", "/etc/[ab].conf"));
  EXPECT_TRUE(matchesPattern1("/etc/x/y/z.conf", "/etc/*.conf"));
  EXPECT_TRUE(matchesPattern1("a\\xyz", "a\\*"));
  EXPECT_FALSE(matchesPattern1("a*", "a\\*"));
}

TEST(SearchFilesByPatternTest, ExpandsExistingPaths) {
  ScopedTempDir dir;
  writeTextFile(dir / "logs/a.log", "");
  writeTextFile(dir / "logs/b.log", "");
  writeTextFile(dir / "logs/c.txt", "");
  writeTextFile(dir / "logs/.hidden.log", "");
  LogCapture capture;
  EXPECT_EQ(sorted({dir / "logs/a.log", dir / "logs/b.log"}),
            sorted(searchFilesByPattern(dir / "logs/*.log")));
  EXPECT_EQ(std::vector<std::string>{dir / "logs/c.txt"},
            searchFilesByPattern(dir / "logs/[c].txt"));
  EXPECT_TRUE(records(capture).empty()) << capture.dump();
}

TEST(SearchFilesByPatternTest, ExpandsALeadingTilde) {
  ScopedTempDir dir;
  writeTextFile(dir / "note.txt", "");
  ScopedEnv home("HOME", dir.path());
  EXPECT_EQ(std::vector<std::string>{dir / "note.txt"}, searchFilesByPattern("~/*.txt"));
}

TEST(SearchFilesByPatternTest, FailuresLogOneLineAndGiveNothing) {
  ScopedTempDir dir;
  {
    LogCapture capture;
    EXPECT_TRUE(searchFilesByPattern(dir / "*.none").empty());
    EXPECT_EQ(std::vector<std::string>{"ERROR [searchFilesByPattern] No matches found."},
              records(capture));
  }
  {
    LogCapture capture;
    EXPECT_TRUE(searchFilesByPattern(dir / "../*").empty());
    EXPECT_EQ(std::vector<std::string>{"ERROR [searchFilesByPattern] Unsafe pattern detected: " +
                                       (dir / "../*")},
              records(capture));
  }
}

TEST(GetParentDirWithoutWildcardTest, DirectoryInFrontOfTheWildcard) {
  EXPECT_EQ("/var/log", getParentDirWithoutWildcard("/var/log/*.log"));
  EXPECT_EQ("/var", getParentDirWithoutWildcard("/var/lo?/x"));
  EXPECT_EQ("/", getParentDirWithoutWildcard("/*.conf"));
  EXPECT_EQ("/", getParentDirWithoutWildcard("/a?/b*"));
  EXPECT_EQ("a", getParentDirWithoutWildcard("a/b*"));
  // No slash in front of the wildcard: "/" even for a relative pattern.
  EXPECT_EQ("/", getParentDirWithoutWildcard("*.conf"));
  EXPECT_EQ("/", getParentDirWithoutWildcard("x?/y"));
  // Brackets are not wildcards here.
  EXPECT_EQ("/a/[b]", getParentDirWithoutWildcard("/a/[b]/c"));
}

TEST(GetParentDirWithoutWildcardTest, PlainDirnameWithoutWildcard) {
  EXPECT_EQ("", getParentDirWithoutWildcard(""));
  EXPECT_EQ("/a/b", getParentDirWithoutWildcard("/a/b/c"));
  EXPECT_EQ("/a", getParentDirWithoutWildcard("/a/b/"));
  EXPECT_EQ("/", getParentDirWithoutWildcard("/a"));
  EXPECT_EQ("/", getParentDirWithoutWildcard("/a/"));
  EXPECT_EQ("", getParentDirWithoutWildcard("/"));
  EXPECT_EQ("", getParentDirWithoutWildcard("name"));
  EXPECT_EQ("a", getParentDirWithoutWildcard("a/b"));
}

TEST(WildcardsToRegexTest, Translation) {
  EXPECT_EQ("file(a|b)\\.[^c].*", wildcardsToRegex("file{a,b}.[!c]*"));
  EXPECT_EQ("\\$\\^\\+\\|\\(\\)", wildcardsToRegex("$^+|()"));
  EXPECT_EQ("a,b}", wildcardsToRegex("a,b}"));
  // Braces do not nest: the first '}' ends the mode, the second is literal.
  EXPECT_EQ("(a|(b|c)}", wildcardsToRegex("{a,{b,c}}"));
  EXPECT_EQ("(a|b),c", wildcardsToRegex("{a,b},c"));
  // Inside brackets the same table applies.
  EXPECT_EQ("[.*\\.]", wildcardsToRegex("[*.]"));
  EXPECT_EQ("[a-z]!", wildcardsToRegex("[a-z]!"));
  // A backslash copies the next byte as it is; a trailing one vanishes.
  EXPECT_EQ("*.x", wildcardsToRegex("\\*\\.x\\"));
  EXPECT_EQ("", wildcardsToRegex(""));

  // The translation is usable as a regular expression.
  const std::regex re(wildcardsToRegex("/var/log/{syslog,messages}.?"));
  EXPECT_TRUE(std::regex_match("/var/log/messages.1", re));
  EXPECT_FALSE(std::regex_match("/var/log/kern.1", re));
}

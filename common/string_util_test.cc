#include "common/string_util.h"

#include <string>
#include <unordered_map>

#include <gtest/gtest.h>

TEST(StringUtilTest, ReplacersNeverRescanTheirOutput) {
  EXPECT_EQ("aaaa", replaceString("aa", "a", "aa"));
  EXPECT_EQ("ab", removeSubString("aabb", "ab"));
  EXPECT_EQ("/new/b/a", replaceBeginString("/a/b/a", "/a", "/new"));
  EXPECT_EQ("b/a", removeFirstSubString("b/a", "/a"));
}

TEST(StringUtilTest, ReplaceVariableStopsAfterAHundred) {
  std::unordered_map<std::string, std::string> variables{{"HOME", "/root"}, {"A", "<A>"}};
  EXPECT_EQ("<USER> <> </root", replaceVariable(variables, "<USER> <> <<HOME>"));
  EXPECT_EQ("<A><A>", replaceVariable(variables, "<A><A>"));  // values stay literal
  std::string many, expected;
  for (int i = 0; i < 100; ++i) many += "<HOME>", expected += "/root";
  EXPECT_EQ(expected + "<HOME>", replaceVariable(variables, many + "<HOME>"));
}

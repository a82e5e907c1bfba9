#include "common/string_util.h"

#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;

namespace {

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> out{"stale"};
  splitString(text, delimiter, out);
  return out;
}

}  // namespace

TEST(StringUtilTest, TrimKnowsOnlyFourBlanks) {
  EXPECT_EQ("a b", trim(" \t\r\na b\r\n\t "));
  EXPECT_EQ("", trim(" \t\r\n"));
  EXPECT_EQ("\fx\v", trim(" \fx\v\n"));
}

TEST(StringUtilTest, SplitDropsEmptyFields) {
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), split("/a//b/", '/'));
  EXPECT_EQ((std::vector<std::string>{"no delimiter"}), split("no delimiter", ','));
  EXPECT_TRUE(split(":::", ':').empty());
  LogCapture capture;
  EXPECT_TRUE(split("", ',').empty());
  EXPECT_TRUE(capture.hasRecord("DEBUG [splitString] input string is empty")) << capture.dump();
}

TEST(StringUtilTest, ReplaceAndRemoveNeverRescanTheirOutput) {
  EXPECT_EQ("ba", replaceString("aaa", "aa", "b"));
  EXPECT_EQ("aaaa", replaceString("aa", "a", "aa"));
  EXPECT_EQ("x-b-x", replaceString("a-b-a", "a", "x"));
  EXPECT_EQ("ab", removeSubString("aabb", "ab"));
  EXPECT_EQ("abc", removeSubString("abc", ""));
}

TEST(StringUtilTest, BeginVariantsLookAtTheBeginningOnly) {
  EXPECT_EQ("abc", replaceBeginString("abc", "bc", "x"));
  EXPECT_EQ("/new/b/a", replaceBeginString("/a/b/a", "/a", "/new"));
  EXPECT_EQ("ab", replaceBeginString("ab", "abc", "x"));
  EXPECT_EQ("/b/a", removeFirstSubString("/a/b/a", "/a"));
  EXPECT_EQ("b/a", removeFirstSubString("b/a", "/a"));
  EXPECT_EQ("", removeFirstSubString("/a", "/a"));
}

TEST(StringUtilTest, EmptyInputsOfTheReplacersAreErrors) {
  LogCapture capture;
  EXPECT_EQ("", replaceString("", "a", "b"));
  EXPECT_EQ("abc", replaceBeginString("abc", "", "b"));
  EXPECT_TRUE(capture.hasRecord("ERROR [replaceString] text is empty")) << capture.dump();
  EXPECT_TRUE(capture.hasRecord("ERROR [replaceBeginString] oldStr is empty")) << capture.dump();
}

TEST(StringUtilTest, ReplaceVariable) {
  std::unordered_map<std::string, std::string> variables{{"HOME", "/root"}, {"A", "<A>"}};
  EXPECT_EQ("cd /root//root", replaceVariable(variables, "cd <HOME>/<HOME>"));
  EXPECT_EQ("<USER> <> /root", replaceVariable(variables, "<USER> <> <HOME>"));
  EXPECT_EQ("</root", replaceVariable(variables, "<<HOME>"));
  EXPECT_EQ("<A><A>", replaceVariable(variables, "<A><A>"));  // values stay literal

  std::string many;
  for (int i = 0; i < 101; ++i) many += "<HOME>";
  std::string expected;
  for (int i = 0; i < 100; ++i) expected += "/root";
  EXPECT_EQ(expected + "<HOME>", replaceVariable(variables, many));

  LogCapture capture;
  replaceVariable(variables, "only < open");
  EXPECT_TRUE(capture.lines().empty()) << capture.dump();
  replaceVariable(variables, "<HOME>/x");
  EXPECT_TRUE(capture.hasRecord("DEBUG [replaceVariable] replaced: /root/x")) << capture.dump();
}

TEST(StringUtilTest, RemoveEscapeCharsDropsEveryBackslash) {
  EXPECT_EQ("a*b", removeEscapeChars("a\\*b"));
  EXPECT_EQ("ab", removeEscapeChars("a\\\\b"));
}

#include "common/string_util.h"

#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;

namespace {

// True when a record of `level` tagged `tag` (any line) carries exactly `message`.
bool logged(LogCapture& capture, const std::string& level, const std::string& tag,
            const std::string& message) {
  const std::string head = level + " [" + tag + ":";
  const std::string tail = "] " + message;
  for (const std::string& line : capture.lines()) {
    if (line.compare(0, head.size(), head) == 0 && line.size() >= head.size() + tail.size() &&
        line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> out{"stale"};
  splitString(text, delimiter, out);
  return out;
}

}  // namespace

TEST(TrimTest, RemovesOnlySpaceTabLineFeedAndCarriageReturn) {
  EXPECT_EQ("a b", trim(" \t\r\na b\r\n\t "));
  EXPECT_EQ("", trim(" \t\r\n"));
  EXPECT_EQ("", trim(""));
  EXPECT_EQ("\v", trim("\v"));
  EXPECT_EQ("\fx\v", trim(" \fx\v\n"));
}

TEST(SplitStringTest, DropsEmptyFields) {
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), split("/a/b", '/'));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), split("a,,b,", ','));
  EXPECT_EQ((std::vector<std::string>{"whole text"}), split("whole text", ','));
  EXPECT_TRUE(split(":::", ':').empty());
}

TEST(SplitStringTest, EmptyTextClearsTheListAndLogsAtDebug) {
  LogCapture capture;
  EXPECT_TRUE(split("", ',').empty());
  EXPECT_TRUE(logged(capture, "DEBUG", "splitString", "input string is empty")) << capture.dump();
}

TEST(ReplaceStringTest, ReplacesLeftToRightWithoutRescanning) {
  EXPECT_EQ("x-b-x", replaceString("a-b-a", "a", "x"));
  EXPECT_EQ("ba", replaceString("aaa", "aa", "b"));
  EXPECT_EQ("aaaa", replaceString("aa", "a", "aa"));  // terminates
  EXPECT_EQ("same", replaceString("same", "me", "me"));
  EXPECT_EQ("-", replaceString("abc-abc", "abc", ""));
  EXPECT_EQ("abc", replaceString("abc", "zz", "y"));
}

TEST(ReplaceStringTest, EmptyInputsAreErrors) {
  LogCapture capture;
  EXPECT_EQ("", replaceString("", "a", "b"));
  EXPECT_TRUE(logged(capture, "ERROR", "replaceString", "text is empty")) << capture.dump();
  EXPECT_EQ("abc", replaceString("abc", "", "b"));
  EXPECT_TRUE(logged(capture, "ERROR", "replaceString", "oldStr is empty")) << capture.dump();
}

TEST(ReplaceBeginStringTest, LooksAtTheBeginningOnly) {
  EXPECT_EQ("abc", replaceBeginString("abc", "bc", "x"));
  EXPECT_EQ("/new/b/a", replaceBeginString("/a/b/a", "/a", "/new"));
  EXPECT_EQ("ab", replaceBeginString("ab", "abc", "x"));
  EXPECT_EQ("x", replaceBeginString("ab", "ab", "x"));

  LogCapture capture;
  EXPECT_EQ("", replaceBeginString("", "a", "b"));
  EXPECT_EQ("abc", replaceBeginString("abc", "", "b"));
  EXPECT_TRUE(logged(capture, "ERROR", "replaceBeginString", "text is empty")) << capture.dump();
  EXPECT_TRUE(logged(capture, "ERROR", "replaceBeginString", "oldStr is empty")) << capture.dump();
}

TEST(RemoveSubStringTest, RemovesEveryOccurrenceInOnePass) {
  EXPECT_EQ("ab", removeSubString("aabb", "ab"));
  EXPECT_EQ("--", removeSubString("x-xx-x", "x"));
  EXPECT_EQ("", removeSubString("", "x"));
  EXPECT_EQ("abc", removeSubString("abc", ""));
}

TEST(RemoveFirstSubStringTest, RemovesOnlyAtTheBeginning) {
  EXPECT_EQ("/b", removeFirstSubString("/a/b", "/a"));
  EXPECT_EQ("b/a", removeFirstSubString("b/a", "/a"));
  EXPECT_EQ("", removeFirstSubString("/a", "/a"));
  EXPECT_EQ("/a", removeFirstSubString("/a", "/a/b"));
  EXPECT_EQ("x", removeFirstSubString("x", ""));
  EXPECT_EQ("", removeFirstSubString("", "x"));
}

TEST(ReplaceVariableTest, ReplacesKnownNamesOnly) {
  std::unordered_map<std::string, std::string> variables{{"HOME", "/root"}, {"E", ""}};
  EXPECT_EQ("cd /root//root", replaceVariable(variables, "cd <HOME>/<HOME>"));
  EXPECT_EQ("<USER> /root", replaceVariable(variables, "<USER> <HOME>"));
  EXPECT_EQ("<> x", replaceVariable(variables, "<> x"));
  EXPECT_EQ("ab", replaceVariable(variables, "a<E>b"));
  // The name between the first '<' and its '>' may hold another '<'.
  EXPECT_EQ("</root", replaceVariable(variables, "<<HOME>"));
  EXPECT_EQ("a > b < c", replaceVariable(variables, "a > b < c"));
}

TEST(ReplaceVariableTest, InsertedValuesAreNotRescanned) {
  std::unordered_map<std::string, std::string> variables{{"A", "<A>"}, {"B", "<A>"}};
  EXPECT_EQ("<A><A>", replaceVariable(variables, "<A><B>"));
}

TEST(ReplaceVariableTest, StopsAfterOneHundredReplacements) {
  std::unordered_map<std::string, std::string> variables{{"V", "v"}};
  std::string text;
  for (int i = 0; i < 101; ++i) text += "<V>";
  EXPECT_EQ(std::string(100, 'v') + "<V>", replaceVariable(variables, text));
}

TEST(ReplaceVariableTest, LogsTheResultOnlyWhenThereAreBrackets) {
  std::unordered_map<std::string, std::string> variables{{"HOME", "/root"}};
  LogCapture capture;
  replaceVariable(variables, "no brackets");
  replaceVariable(variables, "only < open");
  EXPECT_TRUE(capture.lines().empty()) << capture.dump();
  replaceVariable(variables, "<HOME>/x");
  EXPECT_TRUE(logged(capture, "DEBUG", "replaceVariable", "replaced: /root/x")) << capture.dump();
}

TEST(RemoveEscapeCharsTest, DropsEveryBackslash) {
  EXPECT_EQ("a*b", removeEscapeChars("a\\*b"));
  EXPECT_EQ("ab", removeEscapeChars("a\\\\b"));
  EXPECT_EQ("", removeEscapeChars(""));
}

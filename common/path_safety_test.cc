#include "common/path_safety.h"

#include <unistd.h>

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

// Log records with the source line dropped: "ERROR [tag] message".
std::vector<std::string> records(LogCapture& capture) {
  static const std::regex line(":[0-9]+\\]");
  std::vector<std::string> out;
  for (const std::string& r : capture.lines()) out.push_back(std::regex_replace(r, line, "]"));
  return out;
}

// Runs the check on a path that must be refused and returns its one log record.
std::string rejection(const std::string& path, bool permitSymlink = true,
                      bool permitWildcard = true, bool permitMissing = true) {
  LogCapture capture;
  EXPECT_FALSE(isFilePathSafe(path, permitSymlink, permitWildcard, permitMissing)) << path;
  std::vector<std::string> lines = records(capture);
  EXPECT_EQ(1u, lines.size()) << capture.dump();
  return lines.empty() ? "" : lines.front();
}

std::string failed(const std::string& tag, const std::string& message) {
  return "ERROR [" + tag + "] FilePathCheck failed: " + message;
}

std::string shape(const std::string& message) { return failed("isFilePathSafe", message); }
std::string chars(const std::string& message) { return failed("containsDangerousChars", message); }
std::string utf8(const std::string& message) { return failed("isValidUTF8", message); }

bool passes(const std::string& path) { return isFilePathSafe(path, true, true, true); }

}  // namespace

TEST(IsFilePathSafeTest, LengthAndAbsoluteness) {
  EXPECT_EQ(shape("empty path"), rejection(""));
  EXPECT_TRUE(passes("/" + std::string(4094, 'a')));
  EXPECT_EQ(shape("path too long (length=4096, max=4096)"),
            rejection("/" + std::string(4095, 'a')));
  // "." always exists, yet it is relative.
  EXPECT_EQ(shape("not an absolute path - ."), rejection(".", true, true, false));
  EXPECT_EQ(shape("not an absolute path - etc/passwd"), rejection("etc/passwd"));
}

TEST(IsFilePathSafeTest, StructureRulesInOrder) {
  // Consecutive slashes are reported before the traversal that follows them.
  EXPECT_EQ(shape("contains consecutive slashes - /a//b/../c"), rejection("/a//b/../c"));
  // The traversal test is a substring test, not a component test.
  for (const char* path : {"/a/../b", "/a/...", "/a/..b", "/a/b../c", "/..", "/a/.."})
    EXPECT_EQ(shape(std::string("path traversal attack detected - ") + path), rejection(path));
  // Anything whose first component starts with a dot.
  for (const char* path : {"/.", "/.hidden", "/.cache/x"})
    EXPECT_EQ(shape(std::string("invalid root path - ") + path), rejection(path));
  EXPECT_TRUE(passes("/"));
  EXPECT_TRUE(passes("/tmp/.hidden"));
  EXPECT_TRUE(passes("/a/./b"));  // a lone "." component deeper down is not caught
}

TEST(IsFilePathSafeTest, DangerousBytesReportedByClassNotPosition) {
  EXPECT_EQ(chars("contains null byte"), rejection(std::string("/a|\x01\0b", 6)));
  EXPECT_EQ(chars("contains control characters"), rejection("/a|b\x01"));
  EXPECT_EQ(chars("contains control characters"), rejection("/a\nb"));
  EXPECT_EQ(chars("contains control characters"), rejection("/a\x1f"));
  EXPECT_TRUE(passes("/a\tb"));
  EXPECT_EQ(chars("contains DEL character"), rejection("/a|\x7f"));
  for (char meta : std::string("|&;$<>`!(){}'\"")) {
    EXPECT_EQ(chars("contains shell metacharacters"), rejection(std::string("/a\\") + meta))
        << meta;
  }
  // The backslash is refused before the wildcard rule gets to see the star.
  EXPECT_EQ(chars("contains backslash"), rejection("/a/\\*", true, false, true));
}

TEST(IsFilePathSafeTest, Utf8Structure) {
  EXPECT_TRUE(passes("/caf\xC3\xA9"));
  EXPECT_TRUE(passes("/\xE2\x82\xAC/\xF0\x9F\x98\x80"));
  // Surrogates and code points past U+10FFFF are deliberately let through.
  EXPECT_TRUE(passes("/\xED\xA0\x80"));
  EXPECT_TRUE(passes("/\xF4\x90\x80\x80"));

  EXPECT_EQ(utf8("invalid UTF-8 sequence at position 2"), rejection("/a\xC3"));
  EXPECT_EQ(utf8("invalid UTF-8 sequence at position 1"), rejection("/\xC3\x41"));
  EXPECT_EQ(utf8("invalid UTF-8 sequence at position 1"), rejection("/\xE2\x82"));
  EXPECT_EQ(utf8("invalid UTF-8 sequence at position 3"), rejection("/ab\xF0\x9F\x98/"));
  EXPECT_EQ(utf8("overlong UTF-8 sequence"), rejection("/\xE0\x80\x80"));
  EXPECT_EQ(utf8("overlong UTF-8 sequence"), rejection("/\xF0\x8F\xBF\xBF"));
  EXPECT_EQ(utf8("invalid UTF-8 byte 0xF5 at position 1"), rejection("/\xF5\x80\x80\x80"));
  EXPECT_EQ(utf8("invalid UTF-8 byte 0xC0 at position 2"), rejection("/a\xC0\xAF"));
  EXPECT_EQ(utf8("invalid UTF-8 byte 0x80 at position 1"), rejection("/\x80"));
}

TEST(IsFilePathSafeTest, WildcardsOnlyWhenPermitted) {
  EXPECT_EQ(shape("wildcard not allowed - /a/x?.log"), rejection("/a/x?.log", true, false, true));
  EXPECT_EQ(shape("wildcard not allowed - /a/x]"), rejection("/a/x]", true, false, true));
  EXPECT_TRUE(passes("/a/x?.log"));
}

TEST(IsFilePathSafeTest, ExistenceAndLinks) {
  ScopedTempDir dir;
  writeTextFile(dir / "file", "x");
  ASSERT_EQ(0, symlink((dir / "file").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()));

  EXPECT_TRUE(isFilePathSafe(dir / "file", false, false, false));
  EXPECT_EQ(shape("path does not exist - " + (dir / "missing")),
            rejection(dir / "missing", true, true, false));
  EXPECT_TRUE(isFilePathSafe(dir / "link", true, false, false));
  EXPECT_EQ(shape("symbolic link not allowed - " + (dir / "link")),
            rejection(dir / "link", false, false, false));
  // A dangling link counts as missing, never as a link.
  EXPECT_TRUE(isFilePathSafe(dir / "dangling", false, false, true));
  EXPECT_EQ(shape("path does not exist - " + (dir / "dangling")),
            rejection(dir / "dangling", false, false, false));
}

TEST(IsFilePathSafeTest, SuccessLogsSpaceWarningThenDebug) {
  ScopedTempDir dir;
  writeTextFile(dir / "a b", "x");
  LogCapture capture;
  EXPECT_TRUE(isFilePathSafe(dir / "a b", false, false, false));
  EXPECT_EQ((std::vector<std::string>{
                "WARN [isFilePathSafe] FilePathCheck: path contains spaces - " + (dir / "a b"),
                "DEBUG [isFilePathSafe] FilePathCheck passed: " + (dir / "a b")}),
            records(capture));
}

TEST(FilePredicatesTest, LookAtTheEntryItself) {
  ScopedTempDir dir;
  makeDirs(dir / "sub");
  writeTextFile(dir / "file", "x");
  ASSERT_EQ(0, symlink((dir / "sub").c_str(), (dir / "dirlink").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()));

  EXPECT_TRUE(pathIsDir((dir / "sub").c_str()));
  EXPECT_FALSE(pathIsDir((dir / "dirlink").c_str()));
  EXPECT_FALSE(pathIsDir((dir / "file").c_str()));
  EXPECT_FALSE(pathIsDir((dir / "missing").c_str()));

  EXPECT_TRUE(pathIsLinkFile((dir / "dirlink").c_str()));
  EXPECT_TRUE(pathIsLinkFile((dir / "dangling").c_str()));
  EXPECT_FALSE(pathIsLinkFile((dir / "sub").c_str()));

  EXPECT_EQ(0, pathIsExists((dir / "file").c_str()));
  EXPECT_EQ(0, pathIsExists((dir / "dirlink").c_str()));
  EXPECT_EQ(-1, pathIsExists((dir / "dangling").c_str()));
  EXPECT_EQ(-1, pathIsExists((dir / "missing").c_str()));

  EXPECT_FALSE(pathIsDir(nullptr));
  EXPECT_FALSE(pathIsLinkFile(nullptr));
  EXPECT_EQ(-1, pathIsExists(nullptr));

  EXPECT_FALSE(containsEscapeChars(""));
  EXPECT_FALSE(containsEscapeChars("/a/b"));
  EXPECT_TRUE(containsEscapeChars("a\\"));
}

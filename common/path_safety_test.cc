#include "common/path_safety.h"

#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

const std::string kShape = "ERROR [isFilePathSafe] FilePathCheck failed: ";
const std::string kBytes = "ERROR [containsDangerousChars] FilePathCheck failed: ";
const std::string kUtf8 = "ERROR [isValidUTF8] FilePathCheck failed: ";

struct Case {
  std::string path;
  std::string rejection;  // the one error record expected; "" when the path passes
  bool permitSymlink = true;
  bool permitWildcard = true;
  bool permitMissing = true;
};

void expectOutcomes(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    LogCapture capture;
    const bool safe = isFilePathSafe(c.path, c.permitSymlink, c.permitWildcard, c.permitMissing);
    EXPECT_EQ(c.rejection.empty(), safe) << c.path;
    EXPECT_TRUE(c.rejection.empty() || capture.records() == std::vector<std::string>{c.rejection})
        << c.path << ": " << capture.dump();
  }
}

}  // namespace

TEST(IsFilePathSafeTest, RulesInOrder) {
  expectOutcomes({
      {"", kShape + "empty path"},
      {"/" + std::string(4094, 'a'), ""},
      {"/" + std::string(4095, 'a'), kShape + "path too long (length=4096, max=4096)"},
      {"etc/passwd", kShape + "not an absolute path - etc/passwd"},
      {"/a//b/../c", kShape + "contains consecutive slashes - /a//b/../c"},
      // Plain substring tests: names beginning or ending in ".." are refused too.
      {"/a/..b", kShape + "path traversal attack detected - /a/..b"},
      {"/.cache/x", kShape + "invalid root path - /.cache/x"},
      {"/a/./b", ""},  // a lone "." further down is not caught
      // Each byte class is looked for over the whole path before the next one.
      {std::string("/a|\x01\0b", 6), kBytes + "contains null byte"},
      {"/a|b\x01", kBytes + "contains control characters"},
      {"/a\tb", ""},
      {"/a|\x7f", kBytes + "contains DEL character"},
      {"/a/\\*", kBytes + "contains backslash", true, false, true},
      {"/a\\`", kBytes + "contains shell metacharacters"},
      {"/caf\xC3\xA9", ""},
      {"/\xED\xA0\x80", ""},  // surrogates are let through on purpose
      {"/ab\xF0\x9F\x98/", kUtf8 + "invalid UTF-8 sequence at position 3"},
      {"/\xE0\x80\x80", kUtf8 + "overlong UTF-8 sequence"},
      {"/a\xC0\xAF", kUtf8 + "invalid UTF-8 byte 0xC0 at position 2"},
  });
}

TEST(IsFilePathSafeTest, PermissionFlags) {
  ScopedTempDir dir;
  writeTextFile(dir / "file", "x");
  writeTextFile(dir / "a b", "x");
  ASSERT_EQ(0, symlink((dir / "file").c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()));
  expectOutcomes({
      {"/a/x]", kShape + "wildcard not allowed - /a/x]", true, false, true},
      {dir / "missing", kShape + "path does not exist - " + (dir / "missing"), true, true, false},
      {dir / "link", kShape + "symbolic link not allowed - " + (dir / "link"), false, true, true},
      // A dangling link counts as missing, never as a link.
      {dir / "dangling", "", false, true, true},
      {dir / "dangling", kShape + "path does not exist - " + (dir / "dangling"), false, true,
       false},
  });

  LogCapture capture;
  EXPECT_TRUE(isFilePathSafe(dir / "a b", false, false, false));
  EXPECT_EQ((std::vector<std::string>{
                "WARN [isFilePathSafe] FilePathCheck: path contains spaces - " + (dir / "a b"),
                "DEBUG [isFilePathSafe] FilePathCheck passed: " + (dir / "a b")}),
            capture.records());
}

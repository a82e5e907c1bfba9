#include "common/file_io.h"

#include <string>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::readTextFile;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(ReadFileTest, ReturnsEveryByte) {
  ScopedTempDir dir;
  const std::string content("line\r\nzero\0byte\n\n", 18);
  writeTextFile(dir / "f", content);
  EXPECT_EQ(content, readFile(dir / "f"));
}

TEST(ReadFileTest, EmptyAndMissingFilesBothGiveEmptyTextButOnlyMissingLogs) {
  ScopedTempDir dir;
  writeTextFile(dir / "empty", "");
  LogCapture capture;
  EXPECT_EQ("", readFile(dir / "empty"));
  EXPECT_TRUE(capture.lines().empty()) << capture.dump();

  EXPECT_EQ("", readFile(dir / "missing"));
  ASSERT_EQ(1u, capture.lines().size()) << capture.dump();
  EXPECT_NE(std::string::npos,
            capture.lines()[0].find("] Unable to open file, " + (dir / "missing")));
  EXPECT_EQ(0u, capture.lines()[0].rfind("ERROR [readFile:", 0));
}

TEST(WriteFileTest, TruncatesAndWritesExactly) {
  ScopedTempDir dir;
  writeTextFile(dir / "f", "a much longer old content\n");
  EXPECT_TRUE(writeFile(dir / "f", std::string("x\0y", 3)));
  EXPECT_EQ(std::string("x\0y", 3), readTextFile(dir / "f"));
  EXPECT_TRUE(writeFile(dir / "f", ""));
  EXPECT_EQ("", readTextFile(dir / "f"));
  EXPECT_TRUE(writeFile(dir / "new", "fresh"));
  EXPECT_EQ("fresh", readFile(dir / "new"));
}

TEST(WriteFileTest, MissingDirectoryIsNotCreated) {
  ScopedTempDir dir;
  LogCapture capture;
  EXPECT_FALSE(writeFile(dir / "no/such/f", "x"));
  EXPECT_TRUE(capture.contains("ERROR [writeFile:")) << capture.dump();
  EXPECT_TRUE(capture.contains("] Unable to open file for writing, " + (dir / "no/such/f")))
      << capture.dump();
}

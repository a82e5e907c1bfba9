#include "common/file_io.h"

#include <string>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::readTextFile;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(FileIoTest, RoundTripsEveryByteAndTruncates) {
  ScopedTempDir dir;
  const std::string content("line\r\nzero\0byte\n\n", 18);
  writeTextFile(dir / "f", "a much longer old content\n");
  EXPECT_TRUE(writeFile(dir / "f", content));
  EXPECT_EQ(content, readFile(dir / "f"));
  EXPECT_TRUE(writeFile(dir / "f", ""));
  EXPECT_EQ("", readTextFile(dir / "f"));
}

TEST(FileIoTest, OnlyAnUnopenableFileLogs) {
  ScopedTempDir dir;
  writeTextFile(dir / "empty", "");
  LogCapture capture;
  EXPECT_EQ("", readFile(dir / "empty"));
  EXPECT_TRUE(capture.lines().empty()) << capture.dump();

  EXPECT_EQ("", readFile(dir / "missing"));
  EXPECT_FALSE(writeFile(dir / "no/such/f", "x"));
  EXPECT_EQ((std::vector<std::string>{
                "ERROR [readFile] Unable to open file, " + (dir / "missing"),
                "ERROR [writeFile] Unable to open file for writing, " + (dir / "no/such/f")}),
            capture.records());
}

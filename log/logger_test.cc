#include "log/logger.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::readTextFile;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(LoggerTest, ExtractsAppenderFileNames) {
  ScopedTempDir dir;
  writeTextFile(dir / "log.properties",
                "  log4cpp.appender.A.fileName = /var/log/a.log  \n"
                "#log4cpp.appender.B.fileName=/x\n"
                "log4cpp.appender.C.fileName\n"
                "log4cpp.appender.D.fileName=\n"
                "\tlog4cpp.appender.E.fileName=/var/log/a.log\n"
                "log4cpp.appender.F.layout=/not/a/file\n");
  EXPECT_EQ(std::set<std::string>{"/var/log/a.log"},
            Logger::getLogFilePathsFromConfig(dir / "log.properties"));
}

TEST(LoggerTest, CutsThePrefixedFormatAt1023Bytes) {
  zorv_testing::LogCapture capture;
  Logger::getInstance().warn(std::string(2000, 't').c_str(), 1, "lost");
  EXPECT_EQ(std::vector<std::string>{"WARN [" + std::string(1022, 't')}, capture.lines());
}

// The singleton is built once per process, so each configuration runs in a child.
TEST(LoggerTest, MissingPropertiesFallBackToFixedFileAndPattern) {
  ScopedTempDir dir;
  const std::string fallback = dir / "fallback.log";
  EXPECT_EXIT(
      {
        setenv("ZORV_LABEL_LOG_PROPERTIES", (dir / "missing.properties").c_str(), 1);
        setenv("ZORV_LABEL_LOG_FALLBACK", fallback.c_str(), 1);
        testing::internal::CaptureStdout();
        Logger::getInstance().info("fb", 3, "hello %s", "world");
        Logger::getInstance().debug("fb", 4, "below INFO");
        _exit(testing::internal::GetCapturedStdout() == "read log config error.\n" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "Failed to open config file: .*missing.properties");
  const std::string logged = readTextFile(fallback);
  EXPECT_NE(std::string::npos, logged.find(" [INFO] [fb:3] hello world")) << logged;
  EXPECT_EQ(std::string::npos, logged.find("below INFO")) << logged;
  struct stat st {};
  ASSERT_EQ(0, stat(fallback.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
}

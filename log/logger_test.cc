#include "log/logger.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <log4cpp/Category.hh>

#include "testing/test_util.h"

using zorv_testing::LogCapture;
using zorv_testing::readTextFile;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(LoggerConfigTest, ExtractsAppenderFileNames) {
  ScopedTempDir dir;
  writeTextFile(dir / "log.properties",
                "log4cpp.rootCategory=DEBUG, A\n"
                "  log4cpp.appender.A.fileName = /var/log/a.log  \n"
                "#log4cpp.appender.B.fileName=/x\n"
                "log4cpp.appender.C.fileName\n"
                "log4cpp.appender.D.fileName=\n"
                "\tlog4cpp.appender.E.fileName=/var/log/a.log\n"
                "log4cpp.appender.F.layout=/not/a/file\n");
  std::set<std::string> files = Logger::getLogFilePathsFromConfig(dir / "log.properties");
  EXPECT_EQ(std::set<std::string>{"/var/log/a.log"}, files);
}

TEST(LoggerTest, PrefixesTagAndLineBeforeFormatting) {
  LogCapture capture;
  Logger::getInstance().debug("walker", 10, "n=%d", 5);
  Logger::getInstance().error("tag", 7, "%s and %s", "a", "b");
  EXPECT_TRUE(capture.contains("DEBUG [walker:10] n=5")) << capture.dump();
  EXPECT_TRUE(capture.contains("ERROR [tag:7] a and b")) << capture.dump();
}

TEST(LoggerTest, CutsThePrefixedFormatAt1023Bytes) {
  LogCapture capture;
  std::string tag(2000, 't');
  Logger::getInstance().warn(tag.c_str(), 1, "lost");
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("WARN [" + std::string(1022, 't'), lines[0]);
}

TEST(LoggerTest, AlwaysLogsThroughInfoCategoryWhateverTheRootPriority) {
  LogCapture capture;
  log4cpp::Category& root = log4cpp::Category::getRoot();
  root.setPriority(log4cpp::Priority::ERROR);
  Logger::getInstance().info("t", 1, "filtered");
  Logger::getInstance().always("t", 2, "kept %d", 1);
  EXPECT_FALSE(capture.contains("filtered"));
  EXPECT_TRUE(capture.contains("INFO [t:2] kept 1")) << capture.dump();
  EXPECT_FALSE(log4cpp::Category::getInstance("INFO").getAdditivity());
}

// The singleton can be built once per process, so the fallback runs in a child.
TEST(LoggerFallbackTest, MissingPropertiesFallsBackToFixedFileAndPattern) {
  ScopedTempDir dir;
  std::string fallback = dir / "fallback.log";
  EXPECT_EXIT(
      {
        setenv("ZORV_LABEL_LOG_PROPERTIES", (dir / "missing.properties").c_str(), 1);
        setenv("ZORV_LABEL_LOG_FALLBACK", fallback.c_str(), 1);
        testing::internal::CaptureStdout();
        Logger::getInstance().info("fb", 3, "hello %s", "world");
        Logger::getInstance().debug("fb", 4, "below INFO");
        std::string out = testing::internal::GetCapturedStdout();
        _exit(out == "read log config error.\n" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "Failed to open config file: .*missing.properties");
  std::string logged = readTextFile(fallback);
  EXPECT_NE(std::string::npos, logged.find(" [INFO] [fb:3] hello world")) << logged;
  EXPECT_EQ(std::string::npos, logged.find("below INFO")) << logged;
  struct stat st {};
  ASSERT_EQ(0, stat(fallback.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
}

TEST(LoggerFallbackTest, ConfiguredLogFilesGetMode0640) {
  ScopedTempDir dir;
  std::string logFile = dir / "configured.log";
  writeTextFile(logFile, "");
  chmod(logFile.c_str(), 0666);
  writeTextFile(dir / "log.properties",
                "log4cpp.rootCategory=DEBUG, A\nlog4cpp.appender.A=FileAppender\n"
                "log4cpp.appender.A.layout=BasicLayout\nlog4cpp.appender.A.fileName=" +
                    logFile);
  EXPECT_EXIT(
      {
        setenv("ZORV_LABEL_LOG_PROPERTIES", (dir / "log.properties").c_str(), 1);
        Logger::getInstance().debug("cfg", 9, "configured");
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
  struct stat st {};
  ASSERT_EQ(0, stat(logFile.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
  EXPECT_NE(std::string::npos, readTextFile(logFile).find("[cfg:9] configured"));
}

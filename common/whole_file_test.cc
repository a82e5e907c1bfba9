#include "common/whole_file.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "testing/test_util.h"

namespace {

using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

TEST(WholeFileTest, ReadsToTheEndWhateverSizeTheFileReports) {
  ScopedTempDir tmp;
  // Larger than the room given to a file of unknown size, so the buffer grows.
  const std::string big(10000, 'x');
  writeTextFile(tmp / "big", big);
  std::string content = "stale";
  ASSERT_TRUE(zorv::readWholeFile((tmp / "big").c_str(), &content));
  EXPECT_EQ(big, content);

  writeTextFile(tmp / "empty", "");
  ASSERT_TRUE(zorv::readWholeFile((tmp / "empty").c_str(), &content));
  EXPECT_EQ("", content);

  // /proc files report a size of 0 yet have content.
  ASSERT_TRUE(zorv::readWholeFile("/proc/self/mountinfo", &content));
  EXPECT_NE(std::string::npos, content.find(" / "));
  EXPECT_EQ('\n', content.back());

  EXPECT_FALSE(zorv::readWholeFile((tmp / "missing").c_str(), &content));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("", content);

  // A link is read through unless the caller refuses it.
  ASSERT_EQ(0, ::symlink((tmp / "big").c_str(), (tmp / "link").c_str()));
  EXPECT_TRUE(zorv::readWholeFile((tmp / "link").c_str(), &content));
  EXPECT_FALSE(zorv::readWholeFile((tmp / "link").c_str(), &content, false));
  EXPECT_EQ(ELOOP, errno);
}

}  // namespace

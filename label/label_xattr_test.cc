#include <sys/xattr.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "label/label.h"
#include "testing/test_util.h"

namespace {

using zorv_testing::LogCapture;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

const char kName[] = "security.zorv";

Label sample() { return Label{{0x11, 0, 0x22}, {0x33, 0x44, 0}, {0x55}, 0x66, 5}; }

TEST(LabelXattrTest, MissingValueIsQuietBadValuesAndMissingFilesAreErrors) {
  ScopedTempDir dir;
  const std::string plain = dir / "plain", empty = dir / "empty", dangling = dir / "dangling";
  for (const std::string& file : {plain, empty}) writeTextFile(file, "");
  ASSERT_EQ(0, setxattr(empty.c_str(), kName, "", 0, 0));
  std::filesystem::create_symlink(dir / "nowhere", dangling);

  LogCapture capture;
  const std::string getError = "ERROR [getFromXattr] LabelError: ";
  EXPECT_EQ(-1, Label().getFromXattr(plain, false));
  EXPECT_EQ(std::vector<std::string>{"DEBUG [getFromXattr] Extended attribute not found: " + plain},
            capture.records());
  EXPECT_EQ(-1, Label().getFromXattr(empty, false));
  EXPECT_EQ(1u,
            capture.countRecord(getError + "Extended attribute is empty: security.zorv: " + empty));
  // A value longer than any label is still read whole, then refused by size.
  ASSERT_EQ(0, setxattr(plain.c_str(), kName, std::string(300, 'x').data(), 300, 0));
  EXPECT_EQ(-1, Label().getFromXattr(plain, false));
  EXPECT_EQ(1u, capture.countRecord(
                    getError + "Label deserialization failed: Buffer size is invalid: " + plain));
  // Existence is judged through the link even when the link itself is meant.
  EXPECT_EQ(-1, Label().getFromXattr(dangling, true));
  EXPECT_EQ(-1, sample().setToXattr(dangling, true));
  EXPECT_EQ(1u, capture.countRecord(getError + "File does not exist: : " + dangling));
  EXPECT_EQ(
      1u, capture.countRecord("ERROR [setToXattr] LabelError: File does not exist: : " + dangling));
}

TEST(LabelXattrTest, SetOnFileSystemWithoutAttributes) {
  // Proc refuses extended attributes, and its own entry touches nothing else.
  const std::string file = "/proc/self/comm";
  char probe[1];
  if (getxattr(file.c_str(), kName, probe, sizeof(probe)) != -1 || errno != ENOTSUP)
    GTEST_SKIP() << file << " does not refuse extended attributes here";
  LogCapture capture;
  EXPECT_EQ(-1, sample().setToXattr(file, false));
  const std::string why = "Filesystem does not support extended attributes: : " + file;
  EXPECT_EQ(1u, capture.countRecord("ERROR [setToXattr] LabelError: " + why));
}

TEST(LabelXattrTest, UnsearchableDirectoryIsOtherFailure) {
  ScopedTempDir dir;
  const std::string file = dir / "closed/file";
  writeTextFile(file, "x");
  ASSERT_EQ(0, sample().setToXattr(file, false));
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::owner_all);
  std::filesystem::permissions(dir.path(), std::filesystem::perms::all);

  // Root searches any directory, so the refusal is met as an unprivileged user.
  EXPECT_EQ("-1 -2 1 1 2", zorv_testing::runAsNobody([&] {
              LogCapture capture;
              const int got = Label().getFromXattr(file, false);
              const int set = sample().setToXattr(file, false);
              return std::to_string(got) + " " + std::to_string(set) + " " +
                     std::to_string(capture.count("ERROR [getFromXattr:")) + " " +
                     std::to_string(capture.count("ERROR [setToXattr:")) + " " +
                     std::to_string(capture.count("] exception: "));
            }));
}

}  // namespace

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

Label sample() {
  Label label;
  label.oid_.pkg_ = 0x11;
  label.oid_.path_ = 0x22;
  label.sid_.pkg_ = 0x33;
  label.sid_.file_ = 0x44;
  label.creatorOid_.pkg_ = 0x55;
  label.tid_ = 0x66;
  label.inheritFlag_ = 5;
  return label;
}

TEST(LabelXattrTest, SetThenGetRoundTrips) {
  ScopedTempDir dir;
  const std::string file = dir / "file", link = dir / "link";
  writeTextFile(file, "x");
  std::filesystem::create_symlink(file, link);
  for (bool noDereference : {false, true}) {
    Label written = sample();
    written.tid_ += noDereference;
    ASSERT_EQ(0, written.setToXattr(file, noDereference));
    Label read;
    ASSERT_EQ(0, read.getFromXattr(file, noDereference));
    EXPECT_EQ(written.toString(), read.toString());
  }
  // Through the link only when it is to be followed.
  EXPECT_EQ(0, Label().getFromXattr(link, false));
  EXPECT_EQ(-1, Label().getFromXattr(link, true));
}

TEST(LabelXattrTest, MissingValueIsQuietBadValuesAndMissingFilesAreErrors) {
  ScopedTempDir dir;
  const std::string plain = dir / "plain", empty = dir / "empty", tenBytes = dir / "ten",
                    dangling = dir / "dangling";
  for (const std::string& file : {plain, empty, tenBytes}) writeTextFile(file, "");
  ASSERT_EQ(0, setxattr(empty.c_str(), kName, "", 0, 0));
  ASSERT_EQ(0, setxattr(tenBytes.c_str(), kName, "0123456789", 10, 0));
  std::filesystem::create_symlink(dir / "nowhere", dangling);

  LogCapture capture;
  const std::string getError = "ERROR [getFromXattr] LabelError: ";
  EXPECT_EQ(-1, Label().getFromXattr(plain, false));
  EXPECT_EQ(std::vector<std::string>{"DEBUG [getFromXattr] Extended attribute not found: " + plain},
            capture.records());
  EXPECT_EQ(-1, Label().getFromXattr(empty, false));
  EXPECT_EQ(1u,
            capture.countRecord(getError + "Extended attribute is empty: security.zorv: " + empty));
  EXPECT_EQ(-1, Label().getFromXattr(tenBytes, false));
  EXPECT_EQ(
      1u, capture.countRecord(getError +
                              "Label deserialization failed: Buffer size is invalid: " + tenBytes));
  // Existence is judged through the link even when the link itself is meant.
  EXPECT_EQ(-1, Label().getFromXattr(dangling, true));
  EXPECT_EQ(-1, sample().setToXattr(dangling, true));
  EXPECT_EQ(1u, capture.countRecord(getError + "File does not exist: : " + dangling));
  EXPECT_EQ(
      1u, capture.countRecord("ERROR [setToXattr] LabelError: File does not exist: : " + dangling));
}

TEST(LabelXattrTest, SetOnFileSystemWithoutAttributes) {
  // The process's own proc entry: proc refuses extended attributes and nothing
  // outside this process could be touched.
  const std::string file = "/proc/self/comm";
  char probe[1];
  if (getxattr(file.c_str(), kName, probe, sizeof(probe)) != -1 || errno != ENOTSUP)
    GTEST_SKIP() << file << " does not refuse extended attributes here";
  LogCapture capture;
  EXPECT_EQ(-1, sample().setToXattr(file, false));
  EXPECT_EQ(1u, capture.countRecord("DEBUG [setToXattr] setxattr: -1, path: " + file));
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

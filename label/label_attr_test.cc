#include "label/label_attr.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "common/unique_fd.h"
#include "testing/test_util.h"

namespace {

using zorv::UniqueFd;
using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

std::string attributeOf(const std::string& path) {
  char value[64];
  ssize_t size = lgetxattr(path.c_str(), zorv::kLabelAttribute, value, sizeof value);
  return size < 0 ? "" : std::string(value, static_cast<size_t>(size));
}

// Writes, reads and removes through a directory handle on a file, a symbolic
// link (its own attribute, never its target's) and the directory itself;
// answers "" or what went wrong. Run on the calling thread and on a thread
// with a private working directory, so that both fallback forms are covered
// when the *xattrat calls are refused (the test runs again under a filter
// that refuses them).
std::string roundTrips(const std::string& dir) {
  UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return "cannot open " + dir;
  const std::string value = "v1";
  for (const char* name : {"file", "link", "."}) {
    if (zorv::writeLabelAt(fd.get(), name, value.data(), value.size(), 0) != 0)
      return std::string("write failed: ") + name;
    char read[16];
    if (zorv::readLabelAt(fd.get(), name, read, sizeof read) != 2 || std::string(read, 2) != value)
      return std::string("read failed: ") + name;
    if (zorv::writeLabelAt(fd.get(), name, "x", 1, XATTR_CREATE) != -EEXIST)
      return std::string("create over a label did not fail: ") + name;
  }
  if (attributeOf(dir + "/target") != "") return "the link's target was written";
  for (const char* name : {"file", "link", "."}) {
    if (zorv::removeLabelAt(fd.get(), name) != 0) return std::string("remove failed: ") + name;
    char read[16];
    if (zorv::readLabelAt(fd.get(), name, read, sizeof read) != -ENODATA)
      return std::string("label left: ") + name;
  }
  if (zorv::readLabelAt(fd.get(), "a/b", nullptr, 0) != -EINVAL) return "a path was accepted";
  return "";
}

TEST(LabelAttrTest, ReachesEntriesByHandleAndNameWithoutFollowingLinks) {
  ScopedTempDir dir;
  writeTextFile(dir / "file", "x");
  writeTextFile(dir / "target", "x");
  ASSERT_EQ(0, symlink("target", (dir / "link").c_str()));
  EXPECT_EQ("", roundTrips(dir.path()));
  std::string onThread;
  std::thread worker([&] {
    onThread = zorv::usePrivateWorkingDirectory() ? roundTrips(dir.path()) : "unshare failed";
  });
  worker.join();
  EXPECT_EQ("", onThread);
  // The calling thread's working directory is never moved.
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  EXPECT_NE(dir.path(), std::string(cwd));
}

}  // namespace

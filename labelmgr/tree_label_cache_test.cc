#include "labelmgr/tree_label_cache.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

namespace fs = std::filesystem;
using zorv::labelmgr::TreeCacheEntry;
using zorv::labelmgr::TreeLabelCache;

constexpr uint64_t kFingerprint = 7;
constexpr off_t kCountOffset = 24;  // of the header's entry count
constexpr off_t kHeaderSize = 32;

long maxRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

class TreeLabelCacheTest : public LabelMgrTest {
 protected:
  void SetUp() override {
    LabelMgrTest::SetUp();
    dir_ = base_ + "/cache";
    file_ = dir_ + "/label-tree.cache";
    makeDirs(dir_);
    chmod(dir_.c_str(), 0700);
    std::vector<TreeCacheEntry> entries;
    for (uint64_t i = 1; i <= 3; ++i) entries.push_back(TreeCacheEntry{1, i, i, 0, 0100644, 0});
    ASSERT_TRUE(TreeLabelCache::save(file_, kFingerprint, entries));
  }
  size_t loaded() {
    TreeLabelCache cache;
    cache.load(file_, kFingerprint);
    return cache.size();
  }
  void setCount(uint64_t count) {
    int fd = open(file_.c_str(), O_WRONLY);
    ASSERT_EQ(static_cast<ssize_t>(sizeof count), pwrite(fd, &count, sizeof count, kCountOffset));
    close(fd);
  }

  std::string dir_;  // set once the temporary tree exists
  std::string file_;
};

TEST_F(TreeLabelCacheTest, FilesThatDisagreeWithTheirHeaderAreNotRead) {
  ASSERT_EQ(3u, loaded());
  setCount(1000);  // claims more than it holds
  EXPECT_EQ(0u, loaded());
  setCount(3);
  ASSERT_EQ(3u, loaded());
  chmod(file_.c_str(), 0666);
  EXPECT_EQ(0u, loaded()) << "writable by others";
  chmod(file_.c_str(), 0600);
  fs::resize_file(file_, fs::file_size(file_) + 40);  // one entry more than it says
  EXPECT_EQ(0u, loaded());
}

// A file of 4 GB whose header agrees with its size but which is all hole must
// cost neither the memory nor the time of reading it.
TEST_F(TreeLabelCacheTest, SparseFileIsNeitherReadNorAllocated) {
  const uint64_t count = 100'000'000;
  setCount(count);
  fs::resize_file(file_, kHeaderSize + count * sizeof(TreeCacheEntry));
  long before = maxRssKb();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0u, loaded());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_LT(maxRssKb() - before, 64 * 1024) << "kilobytes";
}

// A whole-tree run that finds a forged cache replaces it with one of its own.
TEST_F(TreeLabelCacheTest, RunRebuildsAForgedCache) {
  makeFile("etc/app.conf");
  ASSERT_EQ(0, addTagFullSystem(root_, {}));
  std::string cache = base_ + "/state/label-tree.cache";
  uintmax_t size = fs::file_size(cache);
  fs::resize_file(cache, uint64_t{1} << 32);
  ASSERT_EQ(0, addTagFullSystem(root_, {}));
  EXPECT_EQ(size, fs::file_size(cache));
}

}  // namespace
}  // namespace zorv_testing

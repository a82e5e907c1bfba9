#include "tests/fault/fault_util.h"

#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "testing/test_util.h"

namespace zorv_fault {

LabelState readLabel(const std::string& path, Label* label) {
  *label = Label();
  unsigned char value[256];
  const ssize_t size = lgetxattr(path.c_str(), "security.zorv", value, sizeof value);
  if (size < 0) return errno == ENODATA ? LabelState::kAbsent : LabelState::kMalformed;
  if (size == 0) return LabelState::kMalformed;
  try {
    label->deserializeFromBuffer(value, static_cast<unsigned long>(size));
  } catch (const std::exception&) {
    return LabelState::kMalformed;
  }
  return LabelState::kPresent;
}

std::string integrityCheck(const std::string& path) {
  sqlite3* db = nullptr;
  // Read-write, so that a write-ahead log left by a killed run is recovered
  // exactly as the next run of the tool would recover it.
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    std::string error = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close(db);
    return "cannot open " + path + ": " + error;
  }
  sqlite3_busy_timeout(db, 10000);
  std::string result;
  auto addRow = [](void* out, int, char** values, char**) {
    auto* text = static_cast<std::string*>(out);
    *text += (text->empty() ? "" : "; ") + std::string(values[0] != nullptr ? values[0] : "");
    return 0;
  };
  if (sqlite3_exec(db, "PRAGMA integrity_check", addRow, &result, nullptr) != SQLITE_OK)
    result += (result.empty() ? "" : "; ") + std::string(sqlite3_errmsg(db));
  sqlite3_close(db);
  return result;
}

std::vector<std::string> listTree(const std::string& root) {
  std::vector<std::string> entries{root};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    entries.push_back(entry.path().string());
  // A directory's path is a prefix of its entries' paths, so it sorts first.
  std::sort(entries.begin() + 1, entries.end());
  return entries;
}

SmallFileSystem::SmallFileSystem(const std::string& dir, const std::string& options) : dir_(dir) {
  zorv_testing::makeDirs(dir_);
  static const bool ownNamespace =
      unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  (void)ownNamespace;  // without one the mount is still removed on destruction
  if (mount("zorv-fault", dir_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    error_ = "cannot mount a tmpfs on " + dir_ + ": " + std::strerror(errno);
    return;
  }
  mounted_ = true;
}

SmallFileSystem::~SmallFileSystem() {
  if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
}

bool SmallFileSystem::fillAttributeSpace() {
  const std::string filler = dir_ + "/.filler-attrs";
  zorv_testing::writeTextFile(filler, "");
  const std::vector<char> value(4096, 'f');
  // Far more attributes than any bounded tmpfs of this size takes.
  constexpr int kMaxAttributes = 20000;
  int count = 0;
  for (size_t size = value.size(); size >= 1; size /= 2) {
    for (;;) {
      const std::string name = "trusted.fill" + std::to_string(count);
      if (setxattr(filler.c_str(), name.c_str(), value.data(), size, 0) != 0) {
        if (errno == ENOSPC) break;
        error_ = "cannot set " + name + " on " + filler + ": " + std::strerror(errno);
        return false;
      }
      if (++count == kMaxAttributes) {
        error_ = "this kernel's tmpfs does not bound the space extended attributes take";
        return false;
      }
    }
  }
  return true;
}

bool SmallFileSystem::fillBlocks() {
  const std::string filler = dir_ + "/.filler-data";
  const int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    error_ = "cannot create " + filler + ": " + std::strerror(errno);
    return false;
  }
  const std::vector<char> block(4096, 0);
  ssize_t written;
  while ((written = write(fd, block.data(), block.size())) > 0) {
  }
  const int error = errno;
  close(fd);
  if (written < 0 && error == ENOSPC) return true;
  error_ = "filling " + filler + " stopped without ENOSPC: " + std::strerror(error);
  return false;
}

void SmallFileSystem::release() {
  unlink((dir_ + "/.filler-attrs").c_str());
  unlink((dir_ + "/.filler-data").c_str());
}

}  // namespace zorv_fault

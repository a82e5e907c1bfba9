// Whole-tree labelling: one entry on its way from the walk to a worker, the
// attribute calls made through it, and the lock the run's threads log under.
#ifndef ZORV_LABELMGR_TREE_ITEM_H_
#define ZORV_LABELMGR_TREE_ITEM_H_

#include <dirent.h>
#include <fcntl.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "common/entry_stat.h"
#include "common/pinned_walker.h"
#include "log/logger.h"

namespace zorv::labelmgr {

constexpr size_t kLabelBufferBytes = 128;  // the binary form is at most 81 bytes

/// The Logger's category cache is not thread-safe; the walker and the
/// workers log through this lock (TREE_LOG).
std::mutex& treeLogMutex();
#define TREE_LOG(level, ...)                                 \
  do {                                                       \
    std::lock_guard<std::mutex> treeLogLock(treeLogMutex()); \
    ZLOG_##level(__VA_ARGS__);                               \
  } while (0)

/// One entry to label: its canonical path and how to reach it.
struct TreeItem {
  DirRef dir;  // the pinned directory the entry was found in
  std::string path;
  uint32_t nameOffset = 0;
  bool isSlash = false;             // the root "/", which is "." of its own directory
  bool inCwd = false;               // the worker's working directory is `dir`
  unsigned char type = DT_UNKNOWN;  // as the directory listing gave it
  bool hasStat = false;
  bool linkResolved = false;  // a hard link already chosen as its inode's one name
  EntryStat stat;

  int dirfd() const { return inCwd ? AT_FDCWD : dir->get(); }
  const char* name() const { return isSlash ? "." : path.c_str() + nameOffset; }
  /// The directory part of `path`.
  std::string parentPath() const {
    return nameOffset <= 1 ? std::string("/") : path.substr(0, nameOffset - 1);
  }
};

/// The entry's label bytes: their size, or -1 with errno.
ssize_t readTreeLabel(const TreeItem& item, unsigned char* buffer, size_t size);
/// `flags` as for setxattr(): XATTR_CREATE fails with EEXIST on a labelled
/// entry. 0, or -1 with errno.
int writeTreeLabel(const TreeItem& item, const unsigned char* bytes, size_t size, int flags);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_ITEM_H_

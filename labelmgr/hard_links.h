// Whole-tree labelling of files with several hard links: an inode is
// labelled once, through the byte-wise smallest of its names, after the walk
// has seen them all, so that runs agree with each other. No descriptor is
// kept meanwhile (a tree of hard links would hold one per directory): each
// link's directory is reopened from the root afterwards, and the link is
// labelled only if it is still the inode the walk saw.
#ifndef ZORV_LABELMGR_HARD_LINKS_H_
#define ZORV_LABELMGR_HARD_LINKS_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "labelmgr/tree_item.h"

namespace zorv::labelmgr {

/// The hard links a walk met. Thread-safe.
class DeferredLinks {
 public:
  /// Keeps `item` (stat'ed) if its path is the smallest seen for its inode.
  void defer(TreeItem item);
  /// The kept entries in path order, so that those of one directory come
  /// together; empties the set.
  std::vector<TreeItem> take();

 private:
  std::mutex mutex_;
  std::map<std::pair<dev_t, ino_t>, TreeItem> items_;
};

/// Gives each of `linked` (in path order) its directory again, reopened from
/// the root, and passes on those still the inode the walk saw; one that is
/// not (or whose directory is gone) is logged and counted in `*failed`.
void relink(int rootFd, const std::string& root, std::vector<TreeItem>& linked,
            const std::function<void(TreeItem)>& pass, uint64_t* failed);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_HARD_LINKS_H_

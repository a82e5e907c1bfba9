// What the previous whole-tree labelling left correctly labelled, so that the
// next run can pass over unchanged entries with one stat() instead of reading
// the attribute and computing the label again.
//
// An entry says: the inode (device, number) reached through the path with this
// hash, with this mode and change time, carried exactly the label the policy
// with this fingerprint gives that path. Any later change of the attribute,
// the mode, a rename or a new link moves the inode's change time, and any
// change of the user-set rules, package ids or dpkg database changes the
// fingerprint; either way the entry no longer matches and the file is checked
// in full. (A change made within the same timestamp tick as our own write
// could go unseen on a file system whose change times are coarse; file
// systems with fine-grained change times, as Linux gives ext4, xfs, btrfs and
// tmpfs since 6.13 once a time has been read, leave no such gap.)
//
// The file is local to one machine (host byte order) and rewritten whole after
// each run; an unreadable, foreign or damaged file is simply not used. It
// lives in a directory checked as the state directory is (state_files.h) and
// is read only when it is a regular file of ours, not writable by others,
// without holes, and exactly as long as its header says: a forged header can
// never make a run allocate more than the file really holds.
#ifndef ZORV_LABELMGR_TREE_LABEL_CACHE_H_
#define ZORV_LABELMGR_TREE_LABEL_CACHE_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "labelmgr/user_set_store.h"

namespace zorv::labelmgr {

class LabelPolicy;

struct TreeCacheEntry {
  uint64_t dev;
  uint64_t ino;
  uint64_t pathHash;
  int64_t ctimeNs;
  uint32_t mode;
  uint32_t reserved;
};

class TreeLabelCache {
 public:
  /// Everything the labels depend on besides the path and the mode: the
  /// user-set file rules and package ids, and the state of the dpkg database
  /// (its status file and file lists). Cheap: it needs no LabelPolicy.
  /// `dpkgDir` stands for dpkgDirectory() when given (a system image's).
  static uint64_t fingerprint(const std::vector<FileRule>& rules,
                              const std::vector<PkgIdRule>& packageIds,
                              const std::string* dpkgDir = nullptr);
  static uint64_t fingerprint(const LabelPolicy& policy);
  /// A stable 64-bit hash of a path (FNV-1a).
  static uint64_t hashPath(std::string_view path);
  static TreeCacheEntry entryFor(const struct stat& st, uint64_t pathHash);

  /// Reads `file` when it was written for `fingerprint`; otherwise the cache
  /// stays empty (a damaged or untrusted file is logged, and a link or other
  /// non-file at its name removed, so that the next save() rebuilds it).
  void load(const std::string& file, uint64_t fingerprint);
  /// The entry still describes this inode as last verified. `hint` (one per
  /// thread, starting at 0) remembers where the last entry was found: entries
  /// are saved in the order a walk verified them, and the next walk meets
  /// them in much the same order, so the entry after the last one found is
  /// tried first.
  bool fresh(const struct stat& st, uint64_t pathHash, size_t* hint = nullptr) const;
  size_t size() const { return count_; }

  /// Replaces `file` (atomically, mode 0600) with `entries`. False (logged)
  /// on failure.
  static bool save(const std::string& file, uint64_t fingerprint,
                   const std::vector<TreeCacheEntry>& entries);

 private:
  const TreeCacheEntry* find(uint64_t dev, uint64_t ino, size_t* hint) const;

  std::vector<TreeCacheEntry> entries_;  // as read from the file
  std::vector<uint32_t> slots_;          // open addressing over entries_
  size_t count_ = 0;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_LABEL_CACHE_H_

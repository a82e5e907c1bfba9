// Whole-tree labelling: what one run shares among its workers, and what a
// worker does with one entry: skip it when the cache vouches for it, else
// compute its label (LabelPolicy::effectiveLabel, as restore does), compare
// and write, then remember it as verified only after a read-back.
//
// The labels lock: while a worker computes and writes, it holds the lock
// shared and makes sure its policy has the user-set rules in force, so that a
// value a user sets during the run is never overwritten by an older one.
#ifndef ZORV_LABELMGR_TREE_RUN_H_
#define ZORV_LABELMGR_TREE_RUN_H_

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "labelmgr/hard_links.h"
#include "labelmgr/policy_source.h"
#include "labelmgr/state_db.h"
#include "labelmgr/state_lock.h"
#include "labelmgr/tree_item.h"
#include "labelmgr/tree_label_cache.h"
#include "labelmgr/tree_labeler.h"

namespace zorv::labelmgr {

/// What one worker keeps for itself.
struct WorkerState {
  TreeLabelStats stats;
  std::vector<TreeCacheEntry> verified;  // entries found or left correctly labelled
  size_t cacheHint = 0;                  // where to look first in the last run's cache
  // Entries still to be read before writing. Trees tend to be labelled all
  // through or not at all: while files carry no label, creating it outright
  // saves the read; a file found labelled turns reading first back on for a
  // while.
  unsigned readFirst = 0;
  std::optional<StateLock> lock;  // the labels lock, shared, while writing
  std::chrono::steady_clock::time_point lockedAt;
  std::unique_ptr<StateDb> db;  // this worker's own connection, for the rules generation
  bool guardFailed = false;     // logged once; every entry that needs a label then fails
  // Without the *xattrat calls, the worker moves its own working directory
  // into each directory once and reaches entries by their bare names.
  bool moveCwd = false;
  DirRef cwd;  // where the working directory is, kept open while it is there
};

class TreeRun {
 public:
  TreeRun(PolicySource& policy, const TreeLabelCache& cache, const EntryStat& root,
          const std::string& canonicalRoot, const TreeLabelOptions& options);

  /// Labels one entry (stat'ing it first unless the walk did), or defers it
  /// when it is one of several hard links.
  void process(TreeItem& item, WorkerState& worker);
  /// Called after each batch: lets writers in once the labels lock has been
  /// held long enough, and always with `last`.
  void endBatch(WorkerState& worker, bool last = false);
  /// Logs a failure of `what` on one entry and counts it, except for a file
  /// removed meanwhile; file systems that refuse labels are named once.
  void reportEntryError(const char* what, const TreeItem& item, int error, TreeLabelStats& stats);

  bool onRootMount(const EntryStat& entry) const { return entry.sameMount(root_); }
  /// How many entries a worker may find verified: what the last run left
  /// verified, none in a dry run (which remembers nothing).
  size_t verifiedCapacity() const { return options_.dryRun ? 0 : cache_.size(); }
  DeferredLinks& deferred() { return deferred_; }
  /// The directory the walk is listing, for a progress line that names it:
  /// kept only after trackDirectory().
  void trackDirectory() { tracksDirectory_ = true; }
  bool tracksDirectory() const { return tracksDirectory_; }
  void setCurrentDirectory(std::string dir) {
    std::lock_guard<std::mutex> lock(whereMutex_);
    where_ = std::move(dir);
  }
  std::string currentDirectory() {
    std::lock_guard<std::mutex> lock(whereMutex_);
    return where_;
  }

  std::atomic<uint64_t> done{0};

 private:
  const LabelPolicy* policyFor(WorkerState& worker);
  void compare(const TreeItem& item, const std::string& path, const struct stat& st,
               const LabelPolicy& policy, WorkerState& worker);
  void rememberWritten(const TreeItem& item, const struct stat& labelledAs,
                       const unsigned char* wanted, size_t wantedSize, uint64_t pathHash,
                       WorkerState& worker, const EntryStat* statAfterWrite = nullptr);
  bool mayCreateFirst(const TreeItem& item, const WorkerState& worker) const;
  bool createFirst(TreeItem& item, WorkerState& worker);

  PolicySource& policy_;
  const TreeLabelCache& cache_;
  const EntryStat root_;
  const TreeLabelOptions& options_;
  DeferredLinks deferred_;
  std::mutex onceMutex_;
  std::set<dev_t> quietDevices_;
  bool createFirst_ = false;
  std::unordered_set<std::string> mountPoints_;
  bool tracksDirectory_ = false;
  std::mutex whereMutex_;
  std::string where_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_RUN_H_

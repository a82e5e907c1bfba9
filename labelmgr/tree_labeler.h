// Whole-tree labelling: every directory, regular file and symbolic link under a
// root gets its effective label (the policy label with the user-set rules
// applied, computed by LabelPolicy exactly as restore does).
//
// The walk stays on the root's mount (other mounts, bind mounts included, are
// not entered), never follows symbolic links (links are labelled themselves),
// has no depth limit (it iterates and works relative to directory descriptors,
// so paths longer than PATH_MAX are fine) and writes an attribute only when the
// label differs; with a cache, an entry unchanged since the previous run costs
// only its stat(). With nothing cached, a file or link gets its label created
// (where it has none) before its one stat(), which then confirms the guess;
// one that turns out to be executable is written again, and a hard link or
// anything unexpected has the created label removed and is handled as usual. A file with several
// hard links is labelled once, through its byte-wise smallest path, so that runs agree with each
// other. Problems with single entries (unreadable, vanished, no attribute support) are logged once
// each and the walk goes on.
//
// One thread walks; a pool of workers computes, compares and writes.
#ifndef ZORV_LABELMGR_TREE_LABELER_H_
#define ZORV_LABELMGR_TREE_LABELER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zorv::labelmgr {

class LabelPolicy;

struct TreeLabelOptions {
  /// Paths not labelled, with everything under them. Existing paths are made
  /// canonical; others are only tidied (formatPath).
  std::vector<std::string> excludes;
  /// Worker threads beside the walking one; 0 picks one per core.
  unsigned workers = 0;
  /// Progress on standard error: shown only when this is true and standard
  /// error is a terminal.
  bool progress = true;
  /// Where entries found correctly labelled are remembered between runs
  /// (TreeLabelCache); "" keeps no cache and checks every entry in full.
  std::string cacheFile;
  /// Hold the labels lock (StateLock) shared around each batch of writes and
  /// load the policy again when the user-set rules changed meanwhile, so that
  /// a value a user sets during the run is never overwritten by an older one.
  bool guardWrites = false;
};

struct TreeLabelStats {
  std::string root;      // the canonical root walked
  uint64_t seen = 0;     // directories, files and links looked at
  uint64_t written = 0;  // of them, labels written
  uint64_t cached = 0;   // of them, unchanged since the previous run by the cache
  uint64_t failed = 0;   // entries that could not be read, stat'ed or written
  uint64_t mountsSkipped = 0;
  uint64_t excluded = 0;
};

/// Where a run takes its LabelPolicy from: one loaded beforehand, or a loader
/// called on the first entry whose label must be computed, so that a run that
/// finds everything unchanged in its cache never pays for loading it.
/// get() is thread-safe.
class PolicySource {
 public:
  explicit PolicySource(const LabelPolicy& policy);
  /// `fingerprint` as TreeLabelCache::fingerprint() gives it for the rules and
  /// package ids the loader will see. The loader runs on a worker thread, on
  /// first use and again after refresh() saw the rules change; null means it
  /// failed (and said why).
  PolicySource(std::function<std::unique_ptr<LabelPolicy>()> load, uint64_t fingerprint);
  ~PolicySource();
  PolicySource(const PolicySource&) = delete;
  PolicySource& operator=(const PolicySource&) = delete;

  const LabelPolicy* get();
  /// For a loader: the user-set rules now have `generation` (read under the
  /// labels lock); when that differs from the last one seen, the next get()
  /// loads the policy again. Thread-safe.
  void refresh(uint64_t generation);
  uint64_t fingerprint() const { return fingerprint_; }

 private:
  std::function<std::unique_ptr<LabelPolicy>()> load_;
  std::mutex mutex_;
  std::atomic<const LabelPolicy*> current_{nullptr};
  std::vector<std::unique_ptr<LabelPolicy>> retired_;  // every policy loaded, the current last
  bool loaded_ = false;
  bool knowsGeneration_ = false;
  uint64_t generation_ = 0;
  const LabelPolicy* policy_ = nullptr;
  uint64_t fingerprint_ = 0;
};

/// Labels the tree under `root` with `policy`. Returns 0 when the walk ran to
/// its end (problems with single entries are logged and counted in `stats`),
/// -1 (logged) when the root cannot be used: missing, not a directory, or on a
/// read-only file system.
int labelTree(const std::string& root, PolicySource& policy, const TreeLabelOptions& options,
              TreeLabelStats* stats);
int labelTree(const std::string& root, const LabelPolicy& policy, const TreeLabelOptions& options,
              TreeLabelStats* stats);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_LABELER_H_

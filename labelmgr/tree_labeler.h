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

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "labelmgr/policy_source.h"

class Label;

namespace zorv::labelmgr {

class LabelPolicy;

/// An entry whose label is not what the policy gives it, as a dry run
/// reports it. Valid during the call.
struct TreeDifference {
  const std::string& path;       // as the policy sees it (see imageRoot)
  const struct stat& st;         // its lstat()
  const unsigned char* current;  // its label's bytes now; null when it has none
  size_t currentSize;
  const Label& wanted;        // what a real run would write
  const LabelPolicy& policy;  // what computed `wanted`
};

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
  /// Without a cache, create the label of an entry that likely has none
  /// before its one stat() (see above). Off only to measure what it saves.
  bool createFirst = true;
  /// Compare only: nothing is written (labels, cache), the root may lie on a
  /// read-only file system, and onDifference hears of each entry whose label
  /// differs; stats.written then counts those entries.
  bool dryRun = false;
  /// Called from the workers, concurrently: must be thread-safe.
  std::function<void(const TreeDifference&)> onDifference;
  /// Non-empty: the root is "/" of a system image at this canonical path;
  /// the policy, the cache, `excluded` and onDifference see every path as it
  /// is inside the image.
  std::string imageRoot;

  /// `path` (canonical, on the machine) as the policy sees it: without the
  /// image root in front; `scratch` holds the result when it is another text.
  const std::string& policyPath(const std::string& path, std::string* scratch) const {
    if (imageRoot.empty() || imageRoot == "/" || path.size() < imageRoot.size()) return path;
    *scratch = path.size() == imageRoot.size() ? "/" : path.substr(imageRoot.size());
    return *scratch;
  }
  /// Entries (with everything under them) left alone when this says so of
  /// their path (as the policy sees it); called from the walking thread.
  std::function<bool(const std::string& path)> excluded;
};

struct TreeLabelStats {
  std::string root;      // the canonical root walked
  uint64_t seen = 0;     // directories, files and links looked at
  uint64_t written = 0;  // of them, labels written
  uint64_t cached = 0;   // of them, unchanged since the previous run by the cache
  uint64_t failed = 0;   // entries that could not be read, stat'ed or written, or were not reached
  uint64_t mountsSkipped = 0;
  uint64_t excluded = 0;
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

#include "labelmgr/tree_run.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "label/label.h"
#include "label/label_attr.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/mount_points.h"

namespace zorv::labelmgr {
namespace {

constexpr unsigned kReadFirstAfterLabelled = 64;
// How long a worker keeps the labels lock across batches: a user's set waits
// at most about this long (plus one batch) for a whole-tree run.
constexpr auto kLockHold = std::chrono::milliseconds(10);

bool sameBytes(const unsigned char* a, ssize_t aSize, const unsigned char* b, size_t bSize) {
  return aSize == static_cast<ssize_t>(bSize) && std::memcmp(a, b, bSize) == 0;
}

}  // namespace

TreeRun::TreeRun(PolicySource& policy, const TreeLabelCache& cache, const EntryStat& root,
                 const std::string& canonicalRoot, const TreeLabelOptions& options)
    : policy_(policy), cache_(cache), root_(root), options_(options) {
  // Without a cache to consult, the stat() before the write serves only to
  // guess the label's mode-dependent part and to spot files mounted from
  // elsewhere; knowing the mount points lets the write come first.
  createFirst_ = options.createFirst && !options.dryRun && cache_.size() == 0 &&
                 mountPointsUnder(canonicalRoot, &mountPoints_);
}

// With writers guarded against, the first entry of a batch that needs its
// label computed takes the labels lock shared and makes sure the policy
// still has the user-set rules in force; null when the policy cannot be had
// (logged).
const LabelPolicy* TreeRun::policyFor(WorkerState& worker) {
  if (options_.guardWrites && !worker.lock) {
    if (worker.guardFailed) return nullptr;
    std::string error;
    worker.lock = StateLock::acquire(StateLock::Mode::kShared, &error);
    worker.lockedAt = std::chrono::steady_clock::now();
    if (!worker.db && worker.lock) worker.db = StateDb::open(StateDb::OpenMode::kExisting);
    if (!worker.lock || !worker.db) {
      TREE_LOG(ERROR, "cannot guard label writes against other writers: %s",
               error.empty() ? "the state database cannot be opened" : error.c_str());
      worker.guardFailed = true;
      worker.lock.reset();
      return nullptr;
    }
    policy_.refresh(readRulesGeneration(*worker.db));
  }
  return policy_.get();
}

// Taking the lock costs a few system calls and a database read, too much to
// pay for every batch.
void TreeRun::endBatch(WorkerState& worker, bool last) {
  if (worker.lock && (last || std::chrono::steady_clock::now() - worker.lockedAt >= kLockHold))
    worker.lock.reset();
}

void TreeRun::process(TreeItem& item, WorkerState& worker) {
  TreeLabelStats& stats = worker.stats;
  if (!item.hasStat && mayCreateFirst(item, worker) && createFirst(item, worker)) return;
  if (!item.hasStat) {
    if (statEntry(item.dirfd(), item.name(), AT_SYMLINK_NOFOLLOW, &item.stat) != 0) {
      reportEntryError("cannot stat", item, errno, stats);
      return;
    }
    item.hasStat = true;
  }
  const struct stat& st = item.stat.st;
  if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) return;
  if (!onRootMount(item.stat)) {
    // A file bind-mounted from elsewhere (as container runtimes do).
    TREE_LOG(INFO, "not labelling %s: it lies on another mount", item.path.c_str());
    ++stats.mountsSkipped;
    return;
  }
  if (!S_ISDIR(st.st_mode) && st.st_nlink > 1 && !item.linkResolved) {
    deferred_.defer(std::move(item));
    return;
  }
  ++stats.seen;
  std::string scratch;
  const std::string& path = options_.policyPath(item.path, &scratch);
  // A hard-linked inode is reached by several paths: it is always checked.
  bool cacheable = S_ISDIR(st.st_mode) || st.st_nlink == 1;
  uint64_t pathHash = cacheable ? TreeLabelCache::hashPath(path) : 0;
  if (cacheable && cache_.fresh(st, pathHash, &worker.cacheHint)) {
    ++stats.cached;
    if (!options_.dryRun) worker.verified.push_back(TreeLabelCache::entryFor(st, pathHash));
    return;
  }

  const LabelPolicy* policy = policyFor(worker);
  if (policy == nullptr) {
    ++stats.failed;  // the loader has said why
    return;
  }
  if (options_.dryRun) {
    compare(item, path, st, *policy, worker);
    return;
  }
  unsigned char wanted[kLabelBufferBytes];
  size_t wantedSize = policy->effectiveLabel(path, st).serializeToBuffer(wanted, sizeof wanted);
  if (wantedSize == 0) {
    TREE_LOG(ERROR, "cannot encode the label of %s", item.path.c_str());
    ++stats.failed;
    return;
  }
  bool created = false;
  if (worker.readFirst == 0) {
    created = writeTreeLabel(item, wanted, wantedSize, XATTR_CREATE) == 0;
    if (!created && errno == EEXIST) worker.readFirst = kReadFirstAfterLabelled;
  } else {
    --worker.readFirst;
  }
  if (!created) {
    unsigned char current[kLabelBufferBytes];
    ssize_t currentSize = readTreeLabel(item, current, sizeof current);
    if (currentSize < 0 && errno != ENODATA && errno != ERANGE) {
      reportEntryError("cannot read the label of", item, errno, stats);
      return;
    }
    if (sameBytes(current, currentSize, wanted, wantedSize)) {
      if (cacheable) worker.verified.push_back(TreeLabelCache::entryFor(st, pathHash));
      return;
    }
    if (writeTreeLabel(item, wanted, wantedSize, 0) != 0) {
      reportEntryError("cannot write the label of", item, errno, stats);
      return;
    }
  }
  ++stats.written;
  if (cacheable) rememberWritten(item, st, wanted, wantedSize, pathHash, worker);
}

// A dry run's whole work on an entry: read, compare, tell.
void TreeRun::compare(const TreeItem& item, const std::string& path, const struct stat& st,
                      const LabelPolicy& policy, WorkerState& worker) {
  Label wanted = policy.effectiveLabel(path, st);
  unsigned char wantedBytes[kLabelBufferBytes];
  size_t wantedSize = wanted.serializeToBuffer(wantedBytes, sizeof wantedBytes);
  unsigned char current[kLabelBufferBytes];
  ssize_t currentSize = readTreeLabel(item, current, sizeof current);
  if (currentSize < 0 && errno != ENODATA && errno != ERANGE) {
    reportEntryError("cannot read the label of", item, errno, worker.stats);
    return;
  }
  if (wantedSize != 0 && sameBytes(current, currentSize, wantedBytes, wantedSize)) return;
  ++worker.stats.written;
  if (options_.onDifference) {
    options_.onDifference(TreeDifference{path, st, currentSize >= 0 ? current : nullptr,
                                         currentSize >= 0 ? static_cast<size_t>(currentSize) : 0,
                                         wanted, policy});
  }
}

// After a write of our own: the entry is remembered as verified only when a
// read made after its stat() still finds exactly the label written. The
// write moved the change time; anyone who changes the label or the mode
// after that stat() moves it again, so the next run looks at the entry in
// full, and a change made between the write and the stat() is seen by the
// read. (Reading the change time also makes file systems with fine-grained
// change times give any later change a distinct one.) `statAfterWrite`: a
// stat already made after the write, if any.
void TreeRun::rememberWritten(const TreeItem& item, const struct stat& labelledAs,
                              const unsigned char* wanted, size_t wantedSize, uint64_t pathHash,
                              WorkerState& worker, const EntryStat* statAfterWrite) {
  EntryStat after;
  if (statAfterWrite != nullptr)
    after = *statAfterWrite;
  else if (statEntry(item.dirfd(), item.name(), AT_SYMLINK_NOFOLLOW, &after) != 0)
    return;
  if (after.st.st_dev != labelledAs.st_dev || after.st.st_ino != labelledAs.st_ino ||
      after.st.st_mode != labelledAs.st_mode || after.st.st_nlink != labelledAs.st_nlink)
    return;
  unsigned char current[kLabelBufferBytes];
  if (!sameBytes(current, readTreeLabel(item, current, sizeof current), wanted, wantedSize)) return;
  worker.verified.push_back(TreeLabelCache::entryFor(after.st, pathHash));
}

// A file or link not yet looked at, in a run that has nothing cached, on a
// file system that has taken creates so far.
bool TreeRun::mayCreateFirst(const TreeItem& item, const WorkerState& worker) const {
  return createFirst_ && worker.readFirst == 0 && !item.linkResolved &&
         (item.type == DT_REG || item.type == DT_LNK) &&
         (mountPoints_.empty() || mountPoints_.count(item.path) == 0);
}

// Creates the label the entry has if it is what it most likely is (a plain
// file that is nobody's executable, or a link, with one name), then stats it
// once, both to check the guess and to remember the change time that the
// write left. True when the entry is done with; false when it goes on the
// usual way (with item.hasStat set when it has been stat'ed), which is also
// how every failure of the create is reported.
bool TreeRun::createFirst(TreeItem& item, WorkerState& worker) {
  const LabelPolicy* policy = policyFor(worker);
  if (policy == nullptr) return false;
  std::string scratch;
  const std::string& path = options_.policyPath(item.path, &scratch);
  struct stat guess {};
  guess.st_mode = item.type == DT_LNK ? (S_IFLNK | 0777) : (S_IFREG | 0644);
  unsigned char wanted[kLabelBufferBytes];
  size_t wantedSize = policy->effectiveLabel(path, guess).serializeToBuffer(wanted, sizeof wanted);
  if (wantedSize == 0) return false;
  if (writeTreeLabel(item, wanted, wantedSize, XATTR_CREATE) != 0) {
    // Labelled already, or a failure that the usual way reports: either way
    // the next entries are read before they are written.
    worker.readFirst = kReadFirstAfterLabelled;
    return false;
  }
  TreeLabelStats& stats = worker.stats;
  if (statEntry(item.dirfd(), item.name(), AT_SYMLINK_NOFOLLOW, &item.stat) != 0) {
    // The guess cannot be checked: take back the label it created (there
    // was none before), so that no entry keeps a label that may be wrong.
    int error = errno;
    removeLabelAt(item.dirfd(), item.name());
    reportEntryError("cannot stat", item, error, stats);
    return true;
  }
  item.hasStat = true;
  const struct stat& st = item.stat.st;
  if (!(S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) || st.st_nlink != 1 ||
      !onRootMount(item.stat)) {
    // Not what the listing said, a hard link, or mounted here since the walk
    // began: the label just created was not wanted, and there was none
    // before it.
    removeLabelAt(item.dirfd(), item.name());
    return false;
  }
  ++stats.seen;
  bool rewritten = !LabelPolicy::sameInitLabel(guess.st_mode, st.st_mode);
  if (rewritten) {
    wantedSize = policy->effectiveLabel(path, st).serializeToBuffer(wanted, sizeof wanted);
    if (wantedSize == 0) {
      TREE_LOG(ERROR, "cannot encode the label of %s", item.path.c_str());
      ++stats.failed;
      return true;
    }
    if (writeTreeLabel(item, wanted, wantedSize, 0) != 0) {
      int error = errno;
      removeLabelAt(item.dirfd(), item.name());  // the guessed one is wrong
      reportEntryError("cannot write the label of", item, error, stats);
      return true;
    }
  }
  ++stats.written;
  rememberWritten(item, st, wanted, wantedSize, TreeLabelCache::hashPath(path), worker,
                  rewritten ? nullptr : &item.stat);
  return true;
}

void TreeRun::reportEntryError(const char* what, const TreeItem& item, int error,
                               TreeLabelStats& stats) {
  if (error == ENOENT) {
    // Removed meanwhile: nothing left to label.
    TREE_LOG(INFO, "%s vanished during the walk", item.path.c_str());
    return;
  }
  ++stats.failed;
  if (error == ENOTSUP || error == EROFS) {
    // The whole file system answers alike: say so once, not per file.
    std::lock_guard<std::mutex> lock(onceMutex_);
    if (!quietDevices_.insert(item.stat.st.st_dev).second) return;
    TREE_LOG(ERROR, "%s %s: %s; further failures on this file system are not logged", what,
             item.path.c_str(), std::strerror(error));
    return;
  }
  TREE_LOG(ERROR, "%s %s: %s", what, item.path.c_str(), std::strerror(error));
}

}  // namespace zorv::labelmgr

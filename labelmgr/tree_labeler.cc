#include "labelmgr/tree_labeler.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <utility>

#include "cli/zorvlabelmgr.h"
#include "common/path_resolve.h"
#include "common/safe_path.h"
#include "common/unique_fd.h"
#include "label/label.h"
#include "label/label_attr.h"
#include "labelmgr/change_bus.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/state_db.h"
#include "labelmgr/state_lock.h"
#include "labelmgr/tree_label_cache.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

constexpr size_t kLabelBufferBytes = 128;  // the binary form is at most 81 bytes
constexpr size_t kBatchItems = 256;
// Each queued entry keeps its directory's descriptor open; bounding the
// directories per batch and the batches in flight bounds the descriptors.
constexpr size_t kBatchDirectories = 8;
constexpr size_t kQueuedBatches = 16;
// Directories of the walk's current branch that stay open; deeper trees close
// the outermost ones and reopen them through ".." on the way back.
constexpr size_t kOpenFrames = 64;
constexpr auto kProgressInterval = std::chrono::milliseconds(250);
constexpr unsigned kReadFirstAfterLabelled = 64;
// How long a worker keeps the labels lock across batches: a user's set waits
// at most about this long (plus one batch) for a whole-tree run.
constexpr auto kLockHold = std::chrono::milliseconds(10);

// The Logger's category cache is not thread-safe; the walker and the workers
// log through this lock.
std::mutex& logMutex() {
  static std::mutex mutex;
  return mutex;
}
#define TREE_LOG(level, ...)                         \
  do {                                               \
    std::lock_guard<std::mutex> logLock(logMutex()); \
    ZLOG_##level(__VA_ARGS__);                       \
  } while (0)

using DirRef = std::shared_ptr<const UniqueFd>;

struct EntryStat {
  struct stat st {};
  uint64_t mountId = 0;
  bool hasMountId = false;
};

// statx() with the mount id, which tells bind mounts of the same device apart.
int statEntry(int dirfd, const char* name, int flags, EntryStat* out) {
  struct statx sx;
  if (::statx(dirfd, name, flags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_MNT_ID, &sx) != 0) {
    return -1;
  }
  struct stat& st = out->st;
  st = {};
  st.st_dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  st.st_ino = sx.stx_ino;
  st.st_mode = sx.stx_mode;
  st.st_nlink = sx.stx_nlink;
  st.st_uid = sx.stx_uid;
  st.st_gid = sx.stx_gid;
  st.st_rdev = makedev(sx.stx_rdev_major, sx.stx_rdev_minor);
  st.st_size = static_cast<off_t>(sx.stx_size);
  st.st_blksize = sx.stx_blksize;
  st.st_blocks = static_cast<blkcnt_t>(sx.stx_blocks);
  st.st_atim = {sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec};
  st.st_mtim = {sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec};
  st.st_ctim = {sx.stx_ctime.tv_sec, sx.stx_ctime.tv_nsec};
  out->hasMountId = (sx.stx_mask & STATX_MNT_ID) != 0;
  out->mountId = sx.stx_mnt_id;
  return 0;
}

std::string joinPath(const std::string& dir, const char* name) {
  size_t nameSize = std::strlen(name);
  std::string path;
  path.reserve(dir.size() + 1 + nameSize);  // one allocation per entry, not two
  path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path.append(name, nameSize);
  return path;
}

// One entry to label: its canonical path and how to reach it.
struct Item {
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
};

ssize_t readLabel(const Item& item, unsigned char* buffer, size_t size) {
  ssize_t rc = readLabelAt(item.dirfd(), item.name(), buffer, size);
  if (rc < 0) errno = static_cast<int>(-rc);
  return rc < 0 ? -1 : rc;
}

// `flags` as for setxattr(): XATTR_CREATE fails with EEXIST on a labelled file.
int writeLabel(const Item& item, const unsigned char* bytes, size_t size, int flags) {
  int rc = writeLabelAt(item.dirfd(), item.name(), bytes, size, flags);
  if (rc < 0) errno = -rc;
  return rc < 0 ? -1 : 0;
}

class BatchQueue {
 public:
  void push(std::vector<Item> batch) {
    std::unique_lock<std::mutex> lock(mutex_);
    notFull_.wait(lock, [this] { return batches_.size() < kQueuedBatches; });
    batches_.push_back(std::move(batch));
    notEmpty_.notify_one();
  }
  /// Waits for the next batch; false once closed and drained. `beforeWait`
  /// runs (without the queue's lock) when there is none yet.
  template <typename BeforeWait>
  bool pop(std::vector<Item>* batch, BeforeWait beforeWait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (batches_.empty() && !closed_) {
      lock.unlock();
      beforeWait();
      lock.lock();
    }
    notEmpty_.wait(lock, [this] { return !batches_.empty() || closed_; });
    if (batches_.empty()) return false;
    *batch = std::move(batches_.front());
    batches_.pop_front();
    notFull_.notify_one();
    return true;
  }
  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    notEmpty_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable notEmpty_;
  std::condition_variable notFull_;
  std::deque<std::vector<Item>> batches_;
  bool closed_ = false;
};

void addStats(TreeLabelStats& total, const TreeLabelStats& part) {
  total.seen += part.seen;
  total.written += part.written;
  total.cached += part.cached;
  total.failed += part.failed;
  total.mountsSkipped += part.mountsSkipped;
  total.excluded += part.excluded;
}

// What one worker keeps for itself.
struct WorkerState {
  TreeLabelStats stats;
  std::vector<TreeCacheEntry> verified;  // entries found or left correctly labelled
  size_t cacheHint = 0;                  // where to look first in the last run's cache
  // Entries still to be read before writing. Trees tend to be labelled all
  // through or not at all: while files carry no label, creating it outright
  // saves the read; a file found labelled turns reading first back on for a
  // while.
  unsigned readFirst = 0;
  // While labels are computed and written in a batch, the labels lock is
  // held shared, so that no user's set, delete or clear interleaves with it.
  std::optional<StateLock> lock;
  std::chrono::steady_clock::time_point lockedAt;
  std::unique_ptr<StateDb> db;  // this worker's own connection, for the rules generation
  bool guardFailed = false;     // logged once; every entry that needs a label then fails
  // Without the *xattrat calls, the worker moves its own working directory
  // into each directory once and reaches entries by their bare names.
  bool moveCwd = false;
  DirRef cwd;  // where the working directory is, kept open while it is there
};

// Undoes the octal escapes (\040 for a blank and so on) of /proc mount tables.
std::string unescapeMountField(std::string_view field) {
  std::string text;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                (field[i + 3] - '0'));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

// /proc files report no size: read until the end.
bool readWholeFile(const char* path, std::string* content) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[16384];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
    content->append(buffer, static_cast<size_t>(n));
  ::close(fd);
  return n == 0;
}

// The mount points strictly inside `root`, from this process's mount table.
// False when the table cannot be read.
bool mountPointsUnder(const std::string& root, std::unordered_set<std::string>* points) {
  std::string table;
  if (!readWholeFile("/proc/self/mountinfo", &table)) return false;
  std::string prefix = root == "/" ? "/" : root + "/";
  for (size_t begin = 0, end; begin < table.size(); begin = end + 1) {
    end = table.find('\n', begin);
    if (end == std::string::npos) end = table.size();
    std::string_view line(table.data() + begin, end - begin);
    // "id parent major:minor root mount-point options ..."
    size_t field = 0;
    for (int skip = 0; skip < 4 && field != std::string_view::npos; ++skip) {
      field = line.find(' ', field);
      if (field != std::string_view::npos) ++field;
    }
    if (field == std::string_view::npos) continue;
    size_t fieldEnd = line.find(' ', field);
    std::string point = unescapeMountField(line.substr(
        field, fieldEnd == std::string_view::npos ? std::string_view::npos : fieldEnd - field));
    if (point.size() > prefix.size() && point.compare(0, prefix.size(), prefix) == 0)
      points->insert(std::move(point));
  }
  return true;
}

// What the workers share during one run.
class TreeRun {
 public:
  TreeRun(PolicySource& policy, const TreeLabelCache& cache, const EntryStat& root,
          const std::string& canonicalRoot, bool guardWrites)
      : policy_(policy), cache_(cache), root_(root), guardWrites_(guardWrites) {
    // Without a cache to consult, the stat() before the write serves only to
    // guess the label's mode-dependent part and to spot files mounted from
    // elsewhere; knowing the mount points lets the write come first.
    createFirst_ = cache_.size() == 0 && mountPointsUnder(canonicalRoot, &mountPoints_);
  }

  /// The policy for an entry whose label must be computed and written now.
  /// With writers guarded against, the first such entry of a batch takes the
  /// labels lock shared and makes sure the policy still has the user-set
  /// rules in force (they may have changed since it was loaded); null when
  /// the policy cannot be had (logged).
  const LabelPolicy* policyFor(WorkerState& worker) {
    if (guardWrites_ && !worker.lock) {
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

  /// Called after each batch: lets writers in once the lock has been held
  /// for kLockHold (taking it costs a few system calls and a database read,
  /// too much to pay for every batch), and always with `last`.
  void endBatch(WorkerState& worker, bool last = false) {
    if (worker.lock && (last || std::chrono::steady_clock::now() - worker.lockedAt >= kLockHold))
      worker.lock.reset();
  }

  /// How many entries the last run left verified.
  size_t remembered() const { return cache_.size(); }

  bool onRootMount(const EntryStat& entry) const {
    if (entry.st.st_dev != root_.st.st_dev) return false;
    return !(entry.hasMountId && root_.hasMountId && entry.mountId != root_.mountId);
  }

  void process(Item& item, WorkerState& worker) {
    TreeLabelStats& stats = worker.stats;
    std::vector<TreeCacheEntry>& verified = worker.verified;
    if (!item.hasStat) {
      if (mayCreateFirst(item, worker) && createFirst(item, worker)) return;
    }
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
      defer(std::move(item));
      return;
    }
    ++stats.seen;
    // A hard-linked inode is reached by several paths: it is always checked.
    bool cacheable = S_ISDIR(st.st_mode) || st.st_nlink == 1;
    uint64_t pathHash = cacheable ? TreeLabelCache::hashPath(item.path) : 0;
    if (cacheable && cache_.fresh(st, pathHash, &worker.cacheHint)) {
      ++stats.cached;
      verified.push_back(TreeLabelCache::entryFor(st, pathHash));
      return;
    }

    const LabelPolicy* policy = policyFor(worker);
    if (policy == nullptr) {
      ++stats.failed;  // the loader has said why
      return;
    }
    Label label = policy->effectiveLabel(item.path, st);
    unsigned char wanted[kLabelBufferBytes];
    size_t wantedSize = label.serializeToBuffer(wanted, sizeof wanted);
    if (wantedSize == 0) {
      TREE_LOG(ERROR, "cannot encode the label of %s", item.path.c_str());
      ++stats.failed;
      return;
    }
    bool created = false;
    if (worker.readFirst == 0) {
      created = writeLabel(item, wanted, wantedSize, XATTR_CREATE) == 0;
      if (!created && errno == EEXIST) worker.readFirst = kReadFirstAfterLabelled;
    } else {
      --worker.readFirst;
    }
    if (!created) {
      unsigned char current[kLabelBufferBytes];
      ssize_t currentSize = readLabel(item, current, sizeof current);
      if (currentSize < 0 && errno != ENODATA && errno != ERANGE) {
        reportEntryError("cannot read the label of", item, errno, stats);
        return;
      }
      if (currentSize == static_cast<ssize_t>(wantedSize) &&
          std::memcmp(current, wanted, wantedSize) == 0) {
        if (cacheable) verified.push_back(TreeLabelCache::entryFor(st, pathHash));
        return;
      }
      if (writeLabel(item, wanted, wantedSize, 0) != 0) {
        reportEntryError("cannot write the label of", item, errno, stats);
        return;
      }
    }
    ++stats.written;
    if (cacheable) rememberWritten(item, st, wanted, wantedSize, pathHash, worker);
  }

  // After a write of our own: the entry is remembered as verified only when
  // a read made after its stat() still finds exactly the label written. The
  // write moved the change time; anyone who changes the label or the mode
  // after that stat() moves it again, so the next run looks at the entry in
  // full, and a change made between the write and the stat() is seen by the
  // read. (Reading the change time also makes file systems with
  // fine-grained change times give any later change a distinct one.)
  // `statAfterWrite`: a stat already made after the write, if any.
  void rememberWritten(const Item& item, const struct stat& labelledAs, const unsigned char* wanted,
                       size_t wantedSize, uint64_t pathHash, WorkerState& worker,
                       const EntryStat* statAfterWrite = nullptr) {
    EntryStat after;
    if (statAfterWrite != nullptr)
      after = *statAfterWrite;
    else if (statEntry(item.dirfd(), item.name(), AT_SYMLINK_NOFOLLOW, &after) != 0)
      return;
    if (after.st.st_dev != labelledAs.st_dev || after.st.st_ino != labelledAs.st_ino ||
        after.st.st_mode != labelledAs.st_mode || after.st.st_nlink != labelledAs.st_nlink)
      return;
    unsigned char current[kLabelBufferBytes];
    ssize_t currentSize = readLabel(item, current, sizeof current);
    if (currentSize != static_cast<ssize_t>(wantedSize) ||
        std::memcmp(current, wanted, wantedSize) != 0)
      return;
    worker.verified.push_back(TreeLabelCache::entryFor(after.st, pathHash));
  }

  // A file or link not yet looked at, in a run that has nothing cached, on a
  // file system that has taken creates so far.
  bool mayCreateFirst(const Item& item, const WorkerState& worker) const {
    return createFirst_ && worker.readFirst == 0 && !item.linkResolved &&
           (item.type == DT_REG || item.type == DT_LNK) &&
           (mountPoints_.empty() || mountPoints_.count(item.path) == 0);
  }

  // Creates the label the entry has if it is what it most likely is (a plain
  // file that is nobody's executable, or a link, with one name), then stats
  // it once, both to check the guess and to remember the change time that
  // the write left. True when the entry is done with; false when it goes on
  // the usual way (with item.hasStat set when it has been stat'ed), which is
  // also how every failure of the create is reported.
  bool createFirst(Item& item, WorkerState& worker) {
    const LabelPolicy* policy = policyFor(worker);
    if (policy == nullptr) return false;
    struct stat guess {};
    guess.st_mode = item.type == DT_LNK ? (S_IFLNK | 0777) : (S_IFREG | 0644);
    unsigned char wanted[kLabelBufferBytes];
    size_t wantedSize =
        policy->effectiveLabel(item.path, guess).serializeToBuffer(wanted, sizeof wanted);
    if (wantedSize == 0) return false;
    if (writeLabel(item, wanted, wantedSize, XATTR_CREATE) != 0) {
      // Labelled already, or a failure that the usual way reports: either
      // way the next entries are read before they are written.
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
      // Not what the listing said, a hard link, or mounted here since the
      // walk began: the label just created was not wanted, and there was none
      // before it.
      removeLabelAt(item.dirfd(), item.name());
      return false;
    }
    ++stats.seen;
    bool rewritten = !LabelPolicy::sameInitLabel(guess.st_mode, st.st_mode);
    if (rewritten) {
      Label label = policy->effectiveLabel(item.path, st);
      wantedSize = label.serializeToBuffer(wanted, sizeof wanted);
      if (wantedSize == 0) {
        TREE_LOG(ERROR, "cannot encode the label of %s", item.path.c_str());
        ++stats.failed;
        return true;
      }
      if (writeLabel(item, wanted, wantedSize, 0) != 0) {
        int error = errno;
        removeLabelAt(item.dirfd(), item.name());  // the guessed one is wrong
        reportEntryError("cannot write the label of", item, error, stats);
        return true;
      }
    }
    ++stats.written;
    rememberWritten(item, st, wanted, wantedSize, TreeLabelCache::hashPath(item.path), worker,
                    rewritten ? nullptr : &item.stat);
    return true;
  }

  void reportEntryError(const char* what, const Item& item, int error, TreeLabelStats& stats) {
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

  // Hard links: the inode is labelled once, through the smallest of its
  // names, after the walk has seen them all.
  void defer(Item item) {
    // No descriptor is kept for it: a tree of hard links would otherwise
    // hold one per directory. It is reached again from the root.
    item.dir.reset();
    item.linkResolved = true;
    std::lock_guard<std::mutex> lock(deferredMutex_);
    auto key = std::make_pair(item.stat.st.st_dev, item.stat.st.st_ino);
    auto found = deferred_.find(key);
    if (found == deferred_.end()) {
      deferred_.emplace(key, std::move(item));
    } else if (item.path < found->second.path) {
      found->second = std::move(item);
    }
  }

  /// The deferred entries in path order, so that those of one directory
  /// come together.
  std::vector<Item> takeDeferred() {
    std::vector<Item> items;
    for (auto& entry : deferred_) items.push_back(std::move(entry.second));
    deferred_.clear();
    std::sort(items.begin(), items.end(),
              [](const Item& a, const Item& b) { return a.path < b.path; });
    return items;
  }

  std::atomic<uint64_t> done{0};

 private:
  PolicySource& policy_;
  const TreeLabelCache& cache_;
  const EntryStat root_;
  const bool guardWrites_;
  std::mutex deferredMutex_;
  std::map<std::pair<dev_t, ino_t>, Item> deferred_;
  std::mutex onceMutex_;
  std::set<dev_t> quietDevices_;
  bool createFirst_ = false;
  std::unordered_set<std::string> mountPoints_;
};

class WorkerPool {
 public:
  WorkerPool(TreeRun& run, unsigned count) : run_(run), workers_(count) {
    // Room for what the last run verified, reserved but not yet touched, so
    // that a large tree's entries are never copied as their lists grow.
    for (WorkerState& worker : workers_) worker.verified.reserve(run.remembered());
    for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this, i] { work(workers_[i]); });
  }
  ~WorkerPool() { finish(); }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void push(std::vector<Item> batch) { queue_.push(std::move(batch)); }

  /// Waits for every queued entry; adds the workers' counts to `total` and
  /// moves the lists of entries they found correctly labelled to `verified`.
  void finish(TreeLabelStats* total = nullptr,
              std::vector<std::vector<TreeCacheEntry>>* verified = nullptr) {
    queue_.close();
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
    for (WorkerState& worker : workers_) {
      if (total != nullptr) addStats(*total, worker.stats);
      if (verified != nullptr) verified->push_back(std::move(worker.verified));
    }
  }

 private:
  void work(WorkerState& worker) {
    // Lets the attribute calls' fallback (kernels without the *xattrat
    // calls) move this thread's working directory into each directory.
    worker.moveCwd = !usingXattrAt() && usePrivateWorkingDirectory();
    std::vector<Item> batch;
    // A worker about to wait for work lets writers in first.
    while (queue_.pop(&batch, [&] { run_.endBatch(worker, true); })) {
      for (Item& item : batch) {
        if (worker.moveCwd && !enter(item, worker)) continue;
        try {
          run_.process(item, worker);
        } catch (const std::exception& e) {
          TREE_LOG(ERROR, "labelling %s failed: %s", item.path.c_str(), e.what());
          ++worker.stats.failed;
        }
      }
      run_.endBatch(worker);
      run_.done += batch.size();
      batch.clear();
    }
    run_.endBatch(worker, true);
  }

  // Moves the worker's working directory into the item's directory, unless
  // it is there already. False (counted, logged) when it cannot.
  static bool enter(Item& item, WorkerState& worker) {
    if (item.dir != worker.cwd) {
      worker.cwd.reset();
      if (::fchdir(item.dir->get()) != 0) {
        TREE_LOG(ERROR, "cannot enter the directory of %s: %s", item.path.c_str(),
                 std::strerror(errno));
        ++worker.stats.failed;
        return false;
      }
      worker.cwd = item.dir;
    }
    item.inCwd = true;
    return true;
  }

  TreeRun& run_;
  BatchQueue queue_;
  std::vector<WorkerState> workers_;
  std::vector<std::thread> threads_;
};

// Gathers entries into batches, closing a batch when it is full or spans
// enough directories.
class Batcher {
 public:
  explicit Batcher(WorkerPool& pool) : pool_(pool) {}

  void add(Item item) {
    const UniqueFd* dir = item.dir.get();
    if (dir != lastDir_) {
      if (directories_ == kBatchDirectories) flush();
      lastDir_ = dir;
      ++directories_;
    }
    batch_.push_back(std::move(item));
    if (batch_.size() >= kBatchItems) flush();
  }

  void flush() {
    if (!batch_.empty()) pool_.push(std::move(batch_));
    batch_ = std::vector<Item>();
    batch_.reserve(kBatchItems);
    directories_ = 0;
    lastDir_ = nullptr;
  }

 private:
  WorkerPool& pool_;
  std::vector<Item> batch_;
  size_t directories_ = 0;
  const UniqueFd* lastDir_ = nullptr;
};

// Opens the directory at the canonical `dirPath` inside the run's root again,
// one component at a time from the root's descriptor and never through a
// link, so that nothing a user renamed meanwhile can lead outside the tree.
UniqueFd reopenBelow(int rootFd, const std::string& rootPath, const std::string& dirPath) {
  UniqueFd dir(::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  size_t begin = rootPath == "/" ? 1 : rootPath.size() + 1;
  while (dir && begin < dirPath.size()) {
    size_t end = dirPath.find('/', begin);
    if (end == std::string::npos) end = dirPath.size();
    std::string name = dirPath.substr(begin, end - begin);
    dir.reset(::openat(dir.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    begin = end + 1;
  }
  return dir;
}

// The directory-walking side: depth first, one open descriptor per directory
// of the current branch (at most kOpenFrames of them).
class Walker {
 public:
  Walker(TreeRun& run, Batcher& batcher, const std::unordered_set<std::string>& excludes)
      : run_(run), batcher_(batcher), excludes_(excludes), buffer_(64 * 1024) {}

  /// `rootFd`: the root, opened pinned; it stays open for the whole walk.
  void walk(int rootFd, const std::string& root, const EntryStat& rootStat) {
    rootFd_ = rootFd;
    root_ = root;
    int fd = ::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      TREE_LOG(ERROR, "cannot open directory %s: %s", root.c_str(), std::strerror(errno));
      ++stats.failed;
      return;
    }
    frames_.push_back(
        Frame{std::make_shared<UniqueFd>(fd), root, rootStat.st.st_dev, rootStat.st.st_ino, {}, 0});
    list(frames_.back());
    while (!frames_.empty()) {
      Frame& top = frames_.back();
      if (top.next == top.subdirs.size()) {
        pop();
        continue;
      }
      Subdir sub = std::move(top.subdirs[top.next++]);
      std::string path = joinPath(top.path, sub.name.c_str());
      if (!top.dir) continue;  // lost during the walk (logged)
      int child = ::openat(top.dir->get(), sub.name.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child < 0) {
        TREE_LOG(ERROR, "cannot open directory %s: %s", path.c_str(), std::strerror(errno));
        ++stats.failed;
        continue;
      }
      struct stat st;
      if (::fstat(child, &st) != 0 || st.st_dev != sub.dev || st.st_ino != sub.ino) {
        // What it held is not labelled: the run is not complete.
        TREE_LOG(WARN, "%s was replaced during the walk; not entered", path.c_str());
        ++stats.failed;
        ::close(child);
        continue;
      }
      frames_.push_back(
          Frame{std::make_shared<UniqueFd>(child), std::move(path), sub.dev, sub.ino, {}, 0});
      ++openFrames_;
      if (openFrames_ > kOpenFrames) {
        frames_[frames_.size() - openFrames_].dir.reset();
        --openFrames_;
      }
      list(frames_.back());
    }
  }

  TreeLabelStats stats;

 private:
  struct Subdir {
    std::string name;
    dev_t dev;
    ino_t ino;
  };
  struct Frame {
    DirRef dir;  // null once closed to spare descriptors
    std::string path;
    dev_t dev;
    ino_t ino;
    std::vector<Subdir> subdirs;
    size_t next;
  };

  void list(Frame& frame) {
    int fd = frame.dir->get();
    for (;;) {
      ssize_t size = ::getdents64(fd, buffer_.data(), buffer_.size());
      if (size == 0) break;
      if (size < 0) {
        TREE_LOG(ERROR, "cannot read directory %s: %s", frame.path.c_str(), std::strerror(errno));
        ++stats.failed;
        break;
      }
      for (ssize_t offset = 0; offset < size;) {
        auto* entry = reinterpret_cast<struct dirent64*>(buffer_.data() + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        add(frame, name, entry->d_type);
      }
    }
  }

  void add(Frame& frame, const char* name, unsigned char type) {
    Item item;
    item.path = joinPath(frame.path, name);
    if (!excludes_.empty() && excludes_.count(item.path) != 0) {
      ++stats.excluded;
      return;
    }
    item.dir = frame.dir;
    item.nameOffset = static_cast<uint32_t>(item.path.size() - std::strlen(name));
    item.type = type;
    if (type == DT_DIR || type == DT_UNKNOWN) {
      // Directories are stat'ed here: the walk needs to know whether to enter.
      if (statEntry(frame.dir->get(), name, AT_SYMLINK_NOFOLLOW, &item.stat) != 0) {
        run_.reportEntryError("cannot stat", item, errno, stats);
        return;
      }
      item.hasStat = true;
      if (S_ISDIR(item.stat.st.st_mode)) {
        if (!run_.onRootMount(item.stat)) {
          TREE_LOG(INFO, "not entering %s: another mount", item.path.c_str());
          ++stats.mountsSkipped;
          return;
        }
        frame.subdirs.push_back(Subdir{name, item.stat.st.st_dev, item.stat.st.st_ino});
      }
    } else if (type != DT_REG && type != DT_LNK) {
      return;  // devices, pipes and sockets carry no label
    }
    batcher_.add(std::move(item));
  }

  // Leaves the current directory. A closed parent is reopened through ".."
  // of the child, else from the root; either way it must be the same
  // directory as before.
  void pop() {
    Frame child = std::move(frames_.back());
    frames_.pop_back();
    if (child.dir) --openFrames_;
    if (frames_.empty()) return;
    Frame& parent = frames_.back();
    if (parent.dir) return;
    int fd = -1;
    if (child.dir) fd = ::openat(child.dir->get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) fd = reopenBelow(rootFd_, root_, parent.path).release();
    struct stat st;
    if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == parent.dev && st.st_ino == parent.ino) {
      parent.dir = std::make_shared<UniqueFd>(fd);
      ++openFrames_;
      return;
    }
    if (fd >= 0) ::close(fd);
    TREE_LOG(ERROR, "lost directory %s during the walk; the rest of it is not labelled",
             parent.path.c_str());
    ++stats.failed;
    parent.next = parent.subdirs.size();
  }

  TreeRun& run_;
  Batcher& batcher_;
  const std::unordered_set<std::string>& excludes_;
  std::vector<char> buffer_;
  std::vector<Frame> frames_;
  size_t openFrames_ = 1;  // the root's
  int rootFd_ = -1;
  std::string root_;
};

// Gives deferred hard links their directory again, reopened from the root,
// and hands each one still the inode the walk saw to the workers; one that
// was replaced meanwhile is counted as not done.
void relink(int rootFd, const std::string& root, std::vector<Item>& linked, Batcher& batcher,
            TreeLabelStats& stats) {
  DirRef dir;
  std::string dirPath;
  bool opened = false;
  bool dirMissing = false;
  for (Item& item : linked) {
    std::string parent =
        item.nameOffset <= 1 ? std::string("/") : item.path.substr(0, item.nameOffset - 1);
    if (!opened || parent != dirPath) {
      opened = true;
      dirPath = parent;
      UniqueFd fd = reopenBelow(rootFd, root, parent);
      dirMissing = !fd;
      dir = fd ? std::make_shared<UniqueFd>(std::move(fd)) : nullptr;
      if (dirMissing) {
        TREE_LOG(ERROR, "cannot reach directory %s again: %s", parent.c_str(),
                 std::strerror(errno));
      }
    }
    struct stat st;
    if (dirMissing || ::fstatat(dir->get(), item.name(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        st.st_dev != item.stat.st.st_dev || st.st_ino != item.stat.st.st_ino) {
      if (!dirMissing)
        TREE_LOG(ERROR, "%s was replaced during the walk; not labelled", item.path.c_str());
      ++stats.failed;
      continue;
    }
    item.dir = dir;
    batcher.add(std::move(item));
  }
}

// The mount point of the file system holding `path`, for the progress line.
std::string mountPointOf(const std::string& path, const EntryStat& stat) {
  std::string current = path;
  while (current != "/") {
    size_t slash = current.find_last_of('/');
    std::string parent = slash == 0 ? "/" : current.substr(0, slash);
    EntryStat up;
    if (statEntry(AT_FDCWD, parent.c_str(), 0, &up) != 0) break;
    bool sameMount = up.st.st_dev == stat.st.st_dev &&
                     !(up.hasMountId && stat.hasMountId && up.mountId != stat.mountId);
    if (!sameMount) break;
    current = parent;
  }
  return current;
}

// Rewrites one status line on the terminal a few times a second.
class Progress {
 public:
  Progress(const TreeRun& run, std::string mount) : run_(run), mount_(std::move(mount)) {
    thread_ = std::thread([this] { loop(); });
  }
  ~Progress() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
    writeAll("\r\033[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  void loop() {
    auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    do {
      double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      uint64_t done = run_.done.load();
      char line[512];
      std::snprintf(line, sizeof line, "\r%llu files labelled, %.0f files/s, on %s\033[K",
                    static_cast<unsigned long long>(done), seconds > 0 ? done / seconds : 0.0,
                    mount_.c_str());
      writeAll(line);
    } while (!wake_.wait_for(lock, kProgressInterval, [this] { return stop_; }));
  }

  static void writeAll(const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
      ssize_t n = ::write(STDERR_FILENO, text.data() + written, text.size() - written);
      if (n <= 0) return;
      written += static_cast<size_t>(n);
    }
  }

  const TreeRun& run_;
  std::string mount_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

std::unordered_set<std::string> normaliseExcludes(const std::vector<std::string>& excludes) {
  std::unordered_set<std::string> result;
  for (const std::string& exclude : excludes) {
    if (exclude.empty()) continue;
    // Only the directory part is resolved: an excluded link is the link
    // itself, not what it points to.
    std::string tidy = formatPath(exclude);
    std::string resolved = getLinkRealPath(tidy);
    result.insert(resolved.empty() ? tidy : resolved);
  }
  return result;
}

}  // namespace

PolicySource::PolicySource(const LabelPolicy& policy)
    : policy_(&policy), fingerprint_(TreeLabelCache::fingerprint(policy)) {}

PolicySource::PolicySource(std::function<std::unique_ptr<LabelPolicy>()> load, uint64_t fingerprint)
    : load_(std::move(load)), fingerprint_(fingerprint) {}

PolicySource::~PolicySource() = default;

const LabelPolicy* PolicySource::get() {
  if (!load_) return policy_;
  if (const LabelPolicy* current = current_.load(std::memory_order_acquire)) return current;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!loaded_) {
    loaded_ = true;
    retired_.push_back(load_());
    current_.store(retired_.back().get(), std::memory_order_release);
  }
  return current_.load(std::memory_order_relaxed);
}

void PolicySource::refresh(uint64_t generation) {
  if (!load_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (knowsGeneration_ && generation != generation_) {
    // Loaded again on next use. The old one stays alive: nothing uses it
    // once the rules have changed, but nothing has to prove that either.
    loaded_ = false;
    current_.store(nullptr, std::memory_order_release);
  }
  knowsGeneration_ = true;
  generation_ = generation;
}

int labelTree(const std::string& root, const LabelPolicy& policy, const TreeLabelOptions& options,
              TreeLabelStats* stats) {
  PolicySource source(policy);
  return labelTree(root, source, options, stats);
}

int labelTree(const std::string& root, PolicySource& policy, const TreeLabelOptions& options,
              TreeLabelStats* stats) {
  TreeLabelStats total;
  // The root is pinned once; everything below it is reached from its
  // descriptor.
  zorv::PinnedEntry rootEntry;
  std::string error;
  if (resolvePinned(root, LinkRule::kSafe, true, &rootEntry, &error) != 0) {
    ZLOG_ERROR("cannot label the tree under %s: %s", root.c_str(), error.c_str());
    return -1;
  }
  std::string canonicalRoot = rootEntry.path;
  UniqueFd rootDir;
  int rc = openPinnedDirectory(rootEntry, &rootDir);
  EntryStat rootStat;
  if (rc != 0 || statEntry(rootDir.get(), "", AT_EMPTY_PATH, &rootStat) != 0) {
    ZLOG_ERROR("cannot label the tree under %s: %s", canonicalRoot.c_str(),
               rc == -ENOTDIR ? "not a directory" : std::strerror(rc != 0 ? -rc : errno));
    return -1;
  }
  struct statvfs fs;
  if (::fstatvfs(rootDir.get(), &fs) == 0 && (fs.f_flag & ST_RDONLY) != 0) {
    ZLOG_ERROR("cannot label the tree under %s: read-only file system", canonicalRoot.c_str());
    return -1;
  }
  std::unordered_set<std::string> excludes = normaliseExcludes(options.excludes);

  std::vector<std::vector<TreeCacheEntry>> verified;  // one list per worker
  uint64_t fingerprint = policy.fingerprint();
  TreeLabelCache cache;
  if (!options.cacheFile.empty()) cache.load(options.cacheFile, fingerprint);

  try {
    TreeRun run(policy, cache, rootStat, canonicalRoot, options.guardWrites);
    unsigned workers = options.workers;
    if (workers == 0) workers = std::max(1u, std::thread::hardware_concurrency());
    std::unique_ptr<Progress> progress;
    if (options.progress && ::isatty(STDERR_FILENO)) {
      progress = std::make_unique<Progress>(run, mountPointOf(canonicalRoot, rootStat));
    }

    if (excludes.count(canonicalRoot) != 0) {
      ++total.excluded;
    } else {
      WorkerPool pool(run, workers);
      Batcher batcher(pool);
      Item rootItem;
      rootItem.dir = std::make_shared<UniqueFd>(std::move(rootEntry.dir));
      rootItem.path = canonicalRoot;
      rootItem.isSlash = rootEntry.name == ".";
      rootItem.nameOffset = static_cast<uint32_t>(canonicalRoot.size() - rootEntry.name.size());
      rootItem.hasStat = true;
      rootItem.stat = rootStat;
      batcher.add(std::move(rootItem));
      Walker walker(run, batcher, excludes);
      walker.walk(rootDir.get(), canonicalRoot, rootStat);
      batcher.flush();
      pool.finish(&total, &verified);
      addStats(total, walker.stats);

      std::vector<Item> linked = run.takeDeferred();
      if (!linked.empty()) {
        WorkerPool linkPool(run, workers);
        Batcher linkBatcher(linkPool);
        relink(rootDir.get(), canonicalRoot, linked, linkBatcher, total);
        linkBatcher.flush();
        linkPool.finish(&total, &verified);
      }
    }
  } catch (const std::exception& e) {
    ZLOG_ERROR("labelling the tree under %s failed: %s", canonicalRoot.c_str(), e.what());
    return -1;
  }
  // When every remembered entry was found unchanged and nothing else was
  // verified, the file already says all there is to say.
  size_t verifiedCount = 0;
  for (const auto& part : verified) verifiedCount += part.size();
  bool cacheUnchanged = cache.size() == verifiedCount && total.cached == verifiedCount;
  if (!options.cacheFile.empty() && !cacheUnchanged) {
    std::vector<TreeCacheEntry> entries;
    entries.reserve(verifiedCount);
    for (const auto& part : verified) entries.insert(entries.end(), part.begin(), part.end());
    TreeLabelCache::save(options.cacheFile, fingerprint, entries);
  }
  if (stats != nullptr) {
    *stats = total;
    stats->root = canonicalRoot;
  }
  return 0;
}

}  // namespace zorv::labelmgr

int addTagFullSystem(const std::string& root, const std::vector<std::string>& excludes) {
  using namespace zorv::labelmgr;
  // Created if missing: the run ends by recording its status there, and the
  // cache of verified entries lives beside it.
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kCreate);
  if (!db) return -1;
  // The rules and package ids fix the cache's fingerprint now; the policy
  // itself (with the package ownership of the walked subtree) is loaded only
  // if some entry turns out to need its label computed.
  std::vector<FileRule> rules;
  std::vector<PkgIdRule> packageIds;
  if (!loadFileRules(*db, std::nullopt, &rules) || !loadPkgIds(*db, &packageIds)) return -1;
  // Resolved as labelTree() resolves it; a root it refuses is refused there.
  zorv::PinnedEntry rootEntry;
  std::string canonicalRoot =
      zorv::resolvePinned(root, zorv::LinkRule::kSafe, true, &rootEntry, nullptr) == 0
          ? rootEntry.path
          : root;
  StateDb* state = db.get();
  PolicySource policy(
      [state, canonicalRoot] { return LabelPolicy::loadUnder(state, canonicalRoot); },
      TreeLabelCache::fingerprint(rules, packageIds));

  TreeLabelOptions options;
  options.excludes = excludes;
  options.guardWrites = true;
  options.cacheFile = stateDirectory() + "/label-tree.cache";
  // Tests that fail one system call in turn need a single worker, so that
  // the Nth call is the same one on every run.
  if (const char* workers = std::getenv("ZORV_LABELMGR_WORKERS"))
    options.workers = static_cast<unsigned>(std::strtoul(workers, nullptr, 10));
  // Until the run has labelled everything the status says it has not, so
  // that a run killed midway is not taken for a complete one.
  int before = readLabelSetStatus();
  if (before != kLabelSetIncomplete && !setLabelSetStatus(*db, kLabelSetIncomplete)) return -1;
  TreeLabelStats stats;
  auto start = std::chrono::steady_clock::now();
  if (labelTree(root, policy, options, &stats) != 0) {
    setLabelSetStatus(*db, kLabelSetIncomplete);
    return -1;
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ZLOG_INFO(
      "labelled the tree under %s in %.3f s: %llu seen (%llu unchanged since the last run), "
      "%llu written, %llu failed, %llu mounts skipped, %llu excluded",
      stats.root.c_str(), seconds, static_cast<unsigned long long>(stats.seen),
      static_cast<unsigned long long>(stats.cached), static_cast<unsigned long long>(stats.written),
      static_cast<unsigned long long>(stats.failed),
      static_cast<unsigned long long>(stats.mountsSkipped),
      static_cast<unsigned long long>(stats.excluded));
  // A run that left files unlabelled says so in the status that -g -b
  // prints, until a later run labels everything.
  int status = stats.failed == 0 ? kLabelSetComplete : kLabelSetIncomplete;
  if (stats.failed != 0) {
    ZLOG_ERROR("the tree under %s is not completely labelled: %llu files left undone",
               stats.root.c_str(), static_cast<unsigned long long>(stats.failed));
  }
  if (status != kLabelSetIncomplete) setLabelSetStatus(*db, status);
  db.reset();
  publishLabelChange("file label-tree " + stats.root + " " + std::to_string(stats.written) + " " +
                     std::to_string(stats.seen) + " " + std::to_string(stats.failed));
  return stats.failed == 0 ? 0 : -1;
}

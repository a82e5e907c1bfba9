// Whole-tree labelling's conductor: pins the root, walks the tree with the
// common pinned walker feeding the workers, then hands the deferred hard
// links over, and finally saves the cache of verified entries.
#include "labelmgr/tree_labeler.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <unordered_set>

#include "common/path_resolve.h"
#include "common/pinned_walker.h"
#include "common/safe_path.h"
#include "labelmgr/mount_points.h"
#include "labelmgr/tree_label_cache.h"
#include "labelmgr/tree_progress.h"
#include "labelmgr/tree_run.h"
#include "labelmgr/tree_workers.h"

namespace zorv::labelmgr {
namespace {

// Whether `path` (canonical, on the machine) is left alone: named exactly,
// or by the caller's rule on its path as the policy sees it.
bool isExcluded(const std::string& path, const std::unordered_set<std::string>& excludes,
                const TreeLabelOptions& options) {
  if (!excludes.empty() && excludes.count(path) != 0) return true;
  if (!options.excluded) return false;
  std::string scratch;
  return options.excluded(options.policyPath(path, &scratch));
}

// Hands what the walk finds to the workers, apart from what is excluded and
// what carries no label; stats directories itself to know whether to enter.
class TreeWalkVisitor : public PinnedWalkVisitor {
 public:
  TreeWalkVisitor(TreeRun& run, Batcher& batcher, const std::unordered_set<std::string>& excludes,
                  const TreeLabelOptions& options)
      : run_(run), batcher_(batcher), excludes_(excludes), options_(options) {}

  std::optional<DirId> visit(WalkEntry& entry) override {
    if (isExcluded(entry.path, excludes_, options_)) {
      ++stats.excluded;
      return std::nullopt;
    }
    if (run_.tracksDirectory() && entry.dir.get() != lastDir_) {
      lastDir_ = entry.dir.get();
      run_.setCurrentDirectory(
          entry.path.substr(0, entry.nameOffset > 1 ? entry.nameOffset - 1 : 1));
    }
    TreeItem item;
    item.dir = std::move(entry.dir);
    item.path = std::move(entry.path);
    item.nameOffset = entry.nameOffset;
    item.type = entry.type;
    std::optional<DirId> enter;
    if (item.type == DT_DIR || item.type == DT_UNKNOWN) {
      // The walk needs to know whether to enter.
      if (statEntry(item.dir->get(), item.name(), AT_SYMLINK_NOFOLLOW, &item.stat) != 0) {
        run_.reportEntryError("cannot stat", item, errno, stats);
        return std::nullopt;
      }
      item.hasStat = true;
      if (S_ISDIR(item.stat.st.st_mode)) {
        if (!run_.onRootMount(item.stat)) {
          TREE_LOG(INFO, "not entering %s: another mount", item.path.c_str());
          ++stats.mountsSkipped;
          return std::nullopt;
        }
        enter = DirId{item.stat.st.st_dev, item.stat.st.st_ino};
      }
    } else if (item.type != DT_REG && item.type != DT_LNK) {
      return std::nullopt;  // devices, pipes and sockets carry no label
    }
    batcher_.add(std::move(item));
    return enter;
  }

  void failed(Problem problem, const std::string& path, int error) override {
    // Whatever it held is not labelled: the run is not complete.
    ++stats.failed;
    switch (problem) {
      case Problem::kOpen:
        TREE_LOG(ERROR, "cannot open directory %s: %s", path.c_str(), std::strerror(error));
        break;
      case Problem::kReplaced:
        TREE_LOG(WARN, "%s was replaced during the walk; not entered", path.c_str());
        break;
      case Problem::kRead:
        TREE_LOG(ERROR, "cannot read directory %s: %s", path.c_str(), std::strerror(error));
        break;
      case Problem::kLost:
        TREE_LOG(ERROR, "lost directory %s during the walk; the rest of it is not labelled",
                 path.c_str());
        break;
    }
  }

  TreeLabelStats stats;

 private:
  TreeRun& run_;
  Batcher& batcher_;
  const std::unordered_set<std::string>& excludes_;
  const TreeLabelOptions& options_;
  const UniqueFd* lastDir_ = nullptr;
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

// Walks the tree and then its deferred hard links, adding what was done to
// `total` and the entries found or left correctly labelled to `verified`.
void runWalk(TreeRun& run, const TreeLabelOptions& options, unsigned workers,
             PinnedEntry& rootEntry, int rootFd, const std::string& canonicalRoot,
             const EntryStat& rootStat, const std::unordered_set<std::string>& excludes,
             TreeLabelStats& total, std::vector<std::vector<TreeCacheEntry>>& verified) {
  WorkerPool pool(run, workers);
  Batcher batcher(pool);
  TreeItem rootItem;
  rootItem.dir = std::make_shared<UniqueFd>(std::move(rootEntry.dir));
  rootItem.path = canonicalRoot;
  rootItem.isSlash = rootEntry.name == ".";
  rootItem.nameOffset = static_cast<uint32_t>(canonicalRoot.size() - rootEntry.name.size());
  rootItem.hasStat = true;
  rootItem.stat = rootStat;
  batcher.add(std::move(rootItem));
  TreeWalkVisitor visitor(run, batcher, excludes, options);
  walkPinned(rootFd, canonicalRoot, DirId{rootStat.st.st_dev, rootStat.st.st_ino}, visitor);
  batcher.flush();
  pool.finish(&total, &verified);
  addStats(total, visitor.stats);

  std::vector<TreeItem> linked = run.deferred().take();
  if (linked.empty()) return;
  WorkerPool linkPool(run, workers);
  Batcher linkBatcher(linkPool);
  relink(
      rootFd, canonicalRoot, linked, [&](TreeItem item) { linkBatcher.add(std::move(item)); },
      &total.failed);
  linkBatcher.flush();
  linkPool.finish(&total, &verified);
}

}  // namespace

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
  PinnedEntry rootEntry;
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
  if (!options.dryRun && ::fstatvfs(rootDir.get(), &fs) == 0 && (fs.f_flag & ST_RDONLY) != 0) {
    ZLOG_ERROR("cannot label the tree under %s: read-only file system", canonicalRoot.c_str());
    return -1;
  }
  std::unordered_set<std::string> excludes = normaliseExcludes(options.excludes);

  std::vector<std::vector<TreeCacheEntry>> verified;  // one list per worker
  uint64_t fingerprint = policy.fingerprint();
  TreeLabelCache cache;
  if (!options.cacheFile.empty()) cache.load(options.cacheFile, fingerprint);

  try {
    TreeRun run(policy, cache, rootStat, canonicalRoot, options);
    unsigned workers = options.workers;
    if (workers == 0) workers = std::max(1u, std::thread::hardware_concurrency());
    std::unique_ptr<TreeProgress> progress;
    if (options.progress && ::isatty(STDERR_FILENO)) {
      if (options.dryRun) {
        // A check names the directory it is in, as the policy sees it.
        run.trackDirectory();
        progress = std::make_unique<TreeProgress>(run.done, "checked", [&run, &options] {
          std::string dir = run.currentDirectory(), scratch;
          return "in " + options.policyPath(dir, &scratch);
        });
      } else {
        progress = std::make_unique<TreeProgress>(
            run.done, "labelled",
            [mount = "on " + mountPointOf(canonicalRoot, rootStat)] { return mount; });
      }
    }
    if (isExcluded(canonicalRoot, excludes, options)) {
      ++total.excluded;
    } else {
      runWalk(run, options, workers, rootEntry, rootDir.get(), canonicalRoot, rootStat, excludes,
              total, verified);
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
  if (!options.cacheFile.empty() && !options.dryRun && !cacheUnchanged) {
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

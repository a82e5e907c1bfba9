// The library's whole-tree labelling entry point: the state it needs (rules,
// package ids, the cache's place), the run's status before and after, the
// log line and the change message that sum the run up.
#include <chrono>
#include <cstdlib>
#include <optional>

#include "cli/zorvlabelmgr.h"
#include "common/safe_path.h"
#include "labelmgr/change_bus.h"
#include "labelmgr/exclude_rules.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/state_db.h"
#include "labelmgr/tree_label_cache.h"
#include "labelmgr/tree_labeler.h"
#include "log/logger.h"

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

  ExcludeRules excludeRules;
  if (!excludeRules.load(excludeDirectory(), nullptr)) return -1;
  TreeLabelOptions options;
  options.excludes = excludes;
  if (!excludeRules.empty()) {
    options.excluded = [&excludeRules](const std::string& path) {
      return excludeRules.matching(path) != nullptr;
    };
  }
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

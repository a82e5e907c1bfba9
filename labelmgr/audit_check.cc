// checkTree: a whole-tree labelling run that only compares, and says for each
// entry labelled otherwise which fields differ and why they would change.
#include <mutex>

#include "labelmgr/audit_context.h"
#include "labelmgr/tree_label_cache.h"
#include "labelmgr/tree_labeler.h"
#include "labelmgr/user_set_store.h"
#include "labelmgr/zorvlabelmgr_audit.h"

namespace zorv::audit {

int checkTree(const AuditOptions& options, const std::vector<std::string>& paths,
              const ReportSink& sink, CheckCounts* counts, std::string* error) {
  namespace lm = labelmgr;
  lm::AuditContext context;
  if (!context.open(options, error)) return -1;
  std::vector<lm::FileRule> rules;
  std::vector<lm::PkgIdRule> packageIds;
  if (context.db != nullptr && (!lm::loadFileRules(*context.db, std::nullopt, &rules) ||
                                !lm::loadPkgIds(*context.db, &packageIds))) {
    *error = "cannot read the state database (see the log)";
    return -1;
  }
  std::string dpkgDir = context.image.dpkgDirectory();
  uint64_t fingerprint = lm::TreeLabelCache::fingerprint(rules, packageIds, &dpkgDir);

  lm::TreeLabelOptions tree;
  tree.dryRun = true;
  tree.progress = options.progress;
  tree.imageRoot = context.image.hostRoot();
  // The cache a rerun would trust; only read.
  if (options.useCache) tree.cacheFile = context.image.stateDirectory() + "/label-tree.cache";
  if (!context.excludes.empty()) {
    tree.excluded = [&context](const std::string& path) {
      return context.excludes.matching(path) != nullptr;
    };
  }
  std::mutex sinkMutex;
  tree.onDifference = [&sink, &sinkMutex](const lm::TreeDifference& difference) {
    PathReport report;
    report.path = difference.path;
    Label current;
    bool decoded = lm::decodeLabel(difference.current, difference.currentSize, &current);
    lm::reportFields(difference.policy, difference.policy.evaluate(difference.path, difference.st),
                     decoded ? &current : nullptr, difference.current != nullptr, true, &report);
    std::lock_guard<std::mutex> lock(sinkMutex);
    sink(report);
  };

  CheckCounts total;
  for (const std::string& path : paths.empty() ? std::vector<std::string>{"/"} : paths) {
    PinnedEntry entry;
    if (context.image.resolve(path, true, &entry, error) != 0) return -1;
    std::string inImage = entry.path;
    const lm::ImageRoot* image = &context.image;
    lm::StateDb* db = context.db.get();
    lm::PolicySource policy(
        [db, inImage, image] { return lm::LabelPolicy::loadUnder(db, inImage, image); },
        fingerprint);
    lm::TreeLabelStats stats;
    if (lm::labelTree(context.image.hostPath(inImage), policy, tree, &stats) != 0) {
      *error = "cannot check the tree under " + path + " (see the log)";
      return -1;
    }
    total.seen += stats.seen;
    total.cached += stats.cached;
    total.differing += stats.written;
    total.failed += stats.failed;
    total.excluded += stats.excluded;
  }
  if (counts != nullptr) *counts = total;
  return 0;
}

}  // namespace zorv::audit

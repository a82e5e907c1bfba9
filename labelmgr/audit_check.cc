// checkTree: a whole-tree labelling run that only compares, and says for each
// entry labelled otherwise which fields differ and why they would change.
#include <sys/stat.h>

#include <mutex>

#include "labelmgr/audit_context.h"
#include "labelmgr/tree_label_cache.h"
#include "labelmgr/tree_labeler.h"
#include "labelmgr/user_set_store.h"
#include "labelmgr/zorvlabelmgr_audit.h"

namespace zorv::audit {
namespace {

namespace lm = labelmgr;

// A file (not a directory) named on the command line: compared alone, as a
// walk of its directory would compare it.
void checkOne(lm::AuditContext& context, const PinnedEntry& entry, const ReportSink& sink,
              CheckCounts* total, const AuditOptions& options) {
  const mode_t mode = entry.st.st_mode;
  if (!S_ISREG(mode) && !S_ISLNK(mode)) return;  // devices, pipes and sockets carry no label
  if (context.excludes.covering(entry.path) != nullptr) {
    ++total->excluded;
    return;
  }
  ++total->seen;
  std::unique_ptr<lm::LabelPolicy> policy =
      lm::LabelPolicy::loadFor(context.db.get(), {entry.path}, &context.image);
  PathReport report;
  if (policy == nullptr) report.error = "cannot load the label policy (see the log)";
  if (policy == nullptr || !lm::examineEntry(*policy, entry, true, &report)) {
    if (options.warn) options.warn(report.error);
    ++total->failed;
    return;
  }
  if (report.fields.empty()) return;
  ++total->differing;
  sink(report);
}

}  // namespace

int checkTree(const AuditOptions& options, const std::vector<std::string>& paths,
              const ReportSink& sink, CheckCounts* counts, std::string* error) {
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
    if (!S_ISDIR(entry.st.st_mode)) {
      checkOne(context, entry, sink, &total, options);
      continue;
    }
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

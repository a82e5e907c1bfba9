// Restoring one file's label from policy, with or without the user-set rules.
#include <sys/stat.h>

#include <cstring>
#include <memory>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/path_gate.h"
#include "labelmgr/state_db.h"
#include "log/logger.h"

namespace {

namespace lm = zorv::labelmgr;

std::string restoreLabel(const std::string& path, bool withRules) {
  zorv::PinnedEntry file;
  if (!lm::admitExactPath(path.c_str(), &file)) return "";
  std::optional<lm::StateLock> lock = lm::lockForChange();
  if (!lock) return "";
  // The transaction keeps a concurrent field set from interleaving with this
  // write, and the rules read are the ones in force while it is held.
  std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kCreate);
  if (db == nullptr) return "";
  lm::ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return "";
  std::unique_ptr<lm::LabelPolicy> policy = lm::LabelPolicy::loadFor(db.get(), {file.path});
  if (policy == nullptr) return "";
  Label label = withRules ? policy->effectiveLabel(file.path, file.st)
                          : policy->initLabel(file.path, file.st);
  std::vector<std::string> changes;
  lm::LabelUndo undo;
  if (!lm::updateLabelAt(
          file.dir.get(), file.name.c_str(), file.path, file.st,
          [&](Label& current) { current = label; }, withRules ? "restore" : "init", &changes, &undo,
          true))
    return "";
  if (!lm::commitChange(*db, transaction, &undo)) return "";
  lm::publishChanges(changes);
  return label.toString();
}

}  // namespace

std::string restoreSingleFileLabel(const std::string& path) { return restoreLabel(path, true); }

std::string restoreSingleFileInitLabel(const std::string& path) {
  return restoreLabel(path, false);
}

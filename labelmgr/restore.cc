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
  std::string file = lm::admitExactPath(path);
  if (file.empty()) return "";
  // The transaction keeps a concurrent field set from interleaving with this
  // write, and the rules read are the ones in force while it is held.
  std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kCreate);
  if (db == nullptr) return "";
  lm::ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return "";
  std::unique_ptr<lm::LabelPolicy> policy = lm::LabelPolicy::loadFor(db.get(), {file});
  if (policy == nullptr) return "";
  struct stat st;
  if (lstat(file.c_str(), &st) != 0) {
    ZLOG_ERROR("cannot stat %s: %s", file.c_str(), strerror(errno));
    return "";
  }
  Label label = withRules ? policy->effectiveLabel(file, st) : policy->initLabel(file, st);
  std::vector<std::string> changes;
  lm::LabelUndo undo;
  if (!lm::updateLabel(
          file, [&](Label& current) { current = label; }, withRules ? "restore" : "init", &changes,
          &undo))
    return "";
  if (!transaction.commit()) {
    undo.rollBack();
    return "";
  }
  lm::publishChanges(changes);
  return label.toString();
}

}  // namespace

std::string restoreSingleFileLabel(const std::string& path) { return restoreLabel(path, true); }

std::string restoreSingleFileInitLabel(const std::string& path) {
  return restoreLabel(path, false);
}

// Deleting and clearing user-set values of a label field.
//
// A rule goes only together with the labels it governed: each covered file
// is relabelled with the value it takes without the rule, inside the same
// BEGIN IMMEDIATE transaction of the state database that removes the rule.
// On a failure the rule and the labels stay as they were, so that running
// the same command again finishes the job. Change messages go out after the
// commit.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <unordered_set>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/field_target.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

// Gives `field` of one file the value `decide` computes from its path and
// lstat(), on top of the label it carries.
bool relabelOne(int dirfd, const char* name, const std::string& path, const struct stat& st,
                Field field,
                const std::function<Label(const std::string&, const struct stat&)>& decide,
                const std::string& op, std::vector<std::string>* changes, LabelUndo* undo) {
  uint64_t value[3];
  getLabelField(decide(path, st), field, value);
  return updateLabelAt(
      dirfd, name, path, st, [&](Label& label) { setLabelField(label, field, value); }, op, changes,
      undo);
}

// Relabels a stored exact target, pinned without following links. A target
// that is gone, or has become a symbolic link, is passed over: the file the
// rule named is no longer there.
bool relabelStored(const std::string& path, Field field,
                   const std::function<Label(const std::string&, const struct stat&)>& decide,
                   const std::string& op, std::vector<std::string>* changes, LabelUndo* undo) {
  PinnedEntry entry;
  int rc = pinStoredTarget(path, &entry);
  if (rc == -ENOENT) return true;
  if (rc != 0) return false;
  return relabelOne(entry.dir.get(), entry.name.c_str(), entry.path, entry.st, field, decide, op,
                    changes, undo);
}

int delField(const char* path, int patternMatch, Field field) {
  FieldTarget target;
  if (!admitTarget(path, patternMatch, &target)) return -1;
  std::optional<StateLock> lock = lockForChange();
  if (!lock) return -1;
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) {
    if (absent) ZLOG_ERROR("no user-set %s for %s", fieldName(field), target.text.c_str());
    return -1;
  }
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  int removed = deleteFileRule(*db, field, target.pattern, target.text);
  if (removed < 0 || (removed > 0 && !bumpRulesGeneration(*db))) return -1;
  if (removed == 0) {
    ZLOG_ERROR("no user-set %s for %s", fieldName(field), target.text.c_str());
    return -1;
  }
  std::vector<std::string> files =
      target.pattern ? filesCoveredBy(target.text) : std::vector{target.text};
  std::unique_ptr<LabelPolicy> policy = LabelPolicy::loadFor(db.get(), files);
  if (policy == nullptr) return -1;
  auto decide = [&](const std::string& file, const struct stat& st) {
    return policy->effectiveLabel(file, st);
  };
  std::string op = std::string("del-") + fieldName(field);
  std::vector<std::string> changes;
  LabelUndo undo;
  bool ok = true;
  if (!target.pattern) {
    ok = relabelOne(target.exact.dir.get(), target.exact.name.c_str(), target.exact.path,
                    target.exact.st, field, decide, op, &changes, &undo);
  } else {
    std::unordered_set<std::string> known(files.begin(), files.end());
    ok = forEachCovered(target.text,
                        [&](const CoveredEntry& entry) {
                          // A file that appeared since the policy was loaded is left to the next
                          // labelling: its package ownership was not looked up.
                          if (known.count(entry.path) == 0) return;
                          if (!relabelOne(entry.dirfd, entry.name, entry.path, entry.st, field,
                                          decide, op, &changes, &undo))
                            ok = false;
                        }) &&
         ok;
  }
  // The rule goes only together with the labels it governed: on any failure
  // both stay as they were, and the same delete can simply be run again.
  if (!ok) {
    undo.rollBack();
    ZLOG_ERROR("user-set %s of %s kept: not every file could be relabelled", fieldName(field),
               target.text.c_str());
    return -1;
  }
  if (!commitChange(*db, transaction, &undo)) return -1;
  publishChanges(changes);
  return 0;
}

int clearField(Field field) {
  std::optional<StateLock> lock = lockForChange();
  if (!lock) return -1;
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent ? 0 : -1;
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  std::vector<FileRule> rules;
  if (!loadFileRules(*db, field, &rules)) return -1;
  // Which files each rule governs now; a pattern whose walk was incomplete
  // cannot be cleared, since some of its files would keep its value.
  std::vector<std::vector<std::string>> covered(rules.size());
  std::vector<bool> clearable(rules.size(), true);
  std::vector<std::string> files;
  for (size_t i = 0; i < rules.size(); ++i) {
    if (!rules[i].isPattern) {
      covered[i] = {rules[i].target};
    } else {
      clearable[i] = forEachCovered(
          rules[i].target, [&](const CoveredEntry& entry) { covered[i].push_back(entry.path); });
    }
    files.insert(files.end(), covered[i].begin(), covered[i].end());
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  std::unique_ptr<LabelPolicy> policy = LabelPolicy::loadFor(db.get(), files);
  if (policy == nullptr) return -1;
  // With every rule of the field gone, the field takes its policy value.
  auto decide = [&](const std::string& file, const struct stat& st) {
    return policy->initLabel(file, st);
  };
  std::string op = std::string("clear-") + fieldName(field);
  std::vector<std::string> changes;
  LabelUndo undo;
  std::unordered_set<std::string> failedFiles;
  for (const std::string& file : files) {
    if (!relabelStored(file, field, decide, op, &changes, &undo)) failedFiles.insert(file);
  }
  // A rule goes once every file it governed has its new value; the others
  // stay, so that running the clear again finds them and finishes the job.
  size_t kept = 0;
  for (size_t i = 0; i < rules.size(); ++i) {
    bool done = clearable[i];
    for (const std::string& file : covered[i]) done = done && failedFiles.count(file) == 0;
    if (!done) {
      ++kept;
      continue;
    }
    if (deleteFileRule(*db, field, rules[i].isPattern, rules[i].target) < 0) return -1;
  }
  if (kept != rules.size() && !bumpRulesGeneration(*db)) return -1;
  if (!commitChange(*db, transaction, &undo)) return -1;
  publishChanges(changes);
  if (kept != 0) {
    ZLOG_ERROR("%zu user-set %s values kept: %zu files could not be relabelled", kept,
               fieldName(field), failedFiles.size());
    return -1;
  }
  return 0;
}

}  // namespace
}  // namespace zorv::labelmgr

using zorv::labelmgr::Field;
namespace lm = zorv::labelmgr;

int delFileOid(const char* path, int patternMatch) {
  return lm::delField(path, patternMatch, Field::kOid);
}
int delFileSid(const char* path, int patternMatch) {
  return lm::delField(path, patternMatch, Field::kSid);
}
int delFileTid(const char* path, int patternMatch) {
  return lm::delField(path, patternMatch, Field::kTid);
}
int delFileInheritFlag(const char* path, int patternMatch) {
  return lm::delField(path, patternMatch, Field::kInheritFlag);
}

int clearFileOid() { return lm::clearField(Field::kOid); }
int clearFileSid() { return lm::clearField(Field::kSid); }
int clearFileTid() { return lm::clearField(Field::kTid); }
int clearFileInheritFlag() { return lm::clearField(Field::kInheritFlag); }

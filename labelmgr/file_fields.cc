// Label fields of files: set, get, delete, clear and the user-set queries.
//
// Every change runs inside one BEGIN IMMEDIATE transaction of the state
// database: the rule is recorded and each file's label is read, changed and
// written back while the lock is held, so concurrent runs never lose each
// other's updates. Change messages go out after the commit.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <unordered_set>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/path_gate.h"
#include "labelmgr/rule_set.h"
#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

// What a field operation names: an exact file, pinned when admitted, or an
// admitted pattern.
struct Target {
  bool pattern = false;
  std::string text;   // the canonical path or the admitted pattern
  PinnedEntry exact;  // the file, when not a pattern
};

bool admitTarget(const char* path, int patternMatch, Target* target) {
  target->pattern = patternMatch != 0;
  if (target->pattern) {
    target->text = admitPattern(path);
    return !target->text.empty();
  }
  if (!admitExactPath(path, &target->exact)) return false;
  target->text = target->exact.path;
  return true;
}

int setField(const char* path, int patternMatch, Field field, const uint64_t value[3]) {
  Target target;
  if (!admitTarget(path, patternMatch, &target)) return -1;
  std::optional<StateLock> lock = lockForChange();
  if (!lock) return -1;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kCreate);
  if (db == nullptr) return -1;
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;

  FileRule rule;
  rule.field = field;
  rule.isPattern = target.pattern;
  rule.target = target.text;
  std::copy(value, value + 3, rule.value);
  if (!putFileRule(*db, rule) || !bumpRulesGeneration(*db)) return -1;

  std::string op = std::string("set-") + fieldName(field);
  std::vector<std::string> changes;
  LabelUndo undo;
  auto apply = [&](int dirfd, const char* name, const std::string& file, const struct stat& st) {
    return updateLabelAt(
        dirfd, name, file, st, [&](Label& label) { setLabelField(label, field, value); }, op,
        &changes, &undo);
  };
  size_t failed = 0;
  size_t files = 0;
  bool complete = true;
  if (!target.pattern) {
    // Nothing written: the rollback undoes the rule.
    if (!apply(target.exact.dir.get(), target.exact.name.c_str(), target.exact.path,
               target.exact.st))
      return -1;
    files = 1;
  } else {
    // The new pattern is now the latest one, but a file's own exact rule still
    // beats it, as it will on restore.
    std::vector<FileRule> rules;
    if (!loadFileRules(*db, field, &rules)) return -1;
    RuleSet ruleSet(std::move(rules));
    complete = forEachCovered(target.text, [&](const CoveredEntry& entry) {
      const FileRule* deciding = ruleSet.decidingRule(field, entry.path);
      if (deciding != nullptr && !deciding->isPattern) return;
      ++files;
      if (!apply(entry.dirfd, entry.name, entry.path, entry.st)) ++failed;
    });
  }
  if (!commitChange(*db, transaction, &undo)) return -1;
  publishChanges(changes);
  if (failed != 0 || !complete) {
    // The rule stays: it governs restore and later labelling, and running
    // the same set again labels what this run could not.
    ZLOG_ERROR("user-set %s recorded for %s, but %zu of %zu files could not be labelled%s",
               fieldName(field), target.text.c_str(), failed, files,
               complete ? "" : " and some directories could not be read");
    return -1;
  }
  ZLOG_DEBUG("user-set %s recorded for %s, %zu files labelled", fieldName(field),
             target.text.c_str(), files);
  return 0;
}

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
  Target target;
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

RecordRow toRow(const FileRule& rule) {
  RecordRow row;
  row.name = rule.target;
  std::copy(rule.value, rule.value + 3, row.value);
  return row;
}

int queryField(const char* path, UserSetRecord** records, int patternMatch, Field field) {
  if (records == nullptr) {
    ZLOG_ERROR("no place for the records");
    return -1;
  }
  Target target;
  if (!admitTarget(path, patternMatch, &target)) return -1;
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent ? 0 : -1;
  std::vector<FileRule> rules;
  if (!loadFileRules(*db, field, &rules)) return -1;

  std::vector<RecordRow> rows;
  if (target.pattern) {
    for (const FileRule& rule : rules)
      if (patternCovers(target.text, rule.target)) rows.push_back(toRow(rule));
  } else {
    RuleSet ruleSet(std::move(rules));
    for (const FileRule* rule : ruleSet.applicableRules(field, target.text))
      rows.push_back(toRow(*rule));
  }
  return handOverRecords(rows, records);
}

int showField(UserSetRecord** records, Field field) {
  if (records == nullptr) {
    ZLOG_ERROR("no place for the records");
    return -1;
  }
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent ? 0 : -1;
  std::vector<FileRule> rules;
  if (!loadFileRules(*db, field, &rules)) return -1;
  std::vector<RecordRow> rows;
  for (const FileRule& rule : rules) rows.push_back(toRow(rule));
  return handOverRecords(rows, records);
}

// Reads one field of a file's label; the state database is not involved.
int getField(const char* path, Field field, uint64_t value[3]) {
  PinnedEntry file;
  if (!admitExactPath(path, &file)) return -1;
  Label label;
  int rc = readLabelOf(file.dir.get(), file.name.c_str(), file.path, &label);
  if (rc == -ENODATA) ZLOG_WARN("%s has no label", file.path.c_str());
  if (rc != 0) return -1;
  getLabelField(label, field, value);
  return 0;
}

uint64_t* idParts(ZORV_ID& id, uint64_t parts[3]) {
  parts[0] = id.pkg;
  parts[1] = id.file;
  parts[2] = id.path;
  return parts;
}

constexpr uint32_t kMaxInheritFlag = 7;

}  // namespace
}  // namespace zorv::labelmgr

using zorv::labelmgr::Field;
namespace lm = zorv::labelmgr;

int setFileOid(const char* path, int patternMatch, ZORV_ID oid) {
  uint64_t value[3];
  return lm::setField(path, patternMatch, Field::kOid, lm::idParts(oid, value));
}

int setFileSid(const char* path, int patternMatch, ZORV_ID sid) {
  uint64_t value[3];
  return lm::setField(path, patternMatch, Field::kSid, lm::idParts(sid, value));
}

int setFileTid(const char* path, uint32_t tid, int patternMatch) {
  uint64_t value[3] = {tid, 0, 0};
  return lm::setField(path, patternMatch, Field::kTid, value);
}

int setFileInheritFlag(const char* path, uint32_t inheritFlag, int patternMatch) {
  if (inheritFlag > lm::kMaxInheritFlag) {
    ZLOG_ERROR("inherit flag %u out of range 0 to %u", inheritFlag, lm::kMaxInheritFlag);
    return -1;
  }
  uint64_t value[3] = {inheritFlag, 0, 0};
  return lm::setField(path, patternMatch, Field::kInheritFlag, value);
}

namespace {

int getId(const char* path, Field field, ZORV_ID* id) {
  if (id == nullptr) {
    ZLOG_ERROR("no place for the identifier");
    return -1;
  }
  uint64_t value[3];
  if (lm::getField(path, field, value) != 0) return -1;
  *id = ZORV_ID{value[0], value[1], value[2]};
  return 0;
}

int getNumber(const char* path, Field field, uint32_t* number) {
  if (number == nullptr) {
    ZLOG_ERROR("no place for the value");
    return -1;
  }
  uint64_t value[3];
  if (lm::getField(path, field, value) != 0) return -1;
  *number = static_cast<uint32_t>(value[0]);
  return 0;
}

}  // namespace

int getFileOid(const char* path, ZORV_ID* oid) { return getId(path, Field::kOid, oid); }
int getFileSid(const char* path, ZORV_ID* sid) { return getId(path, Field::kSid, sid); }
int getFileTid(const char* path, uint32_t* tid) { return getNumber(path, Field::kTid, tid); }
int getFileInheritFlag(const char* path, uint32_t* inheritFlag) {
  return getNumber(path, Field::kInheritFlag, inheritFlag);
}

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

int queryUserSetFileOid(const char* path, UserSetRecord** records, int patternMatch) {
  return lm::queryField(path, records, patternMatch, Field::kOid);
}
int queryUserSetFileSid(const char* path, UserSetRecord** records, int patternMatch) {
  return lm::queryField(path, records, patternMatch, Field::kSid);
}
int queryUserSetFileTid(const char* path, UserSetRecord** records, int patternMatch) {
  return lm::queryField(path, records, patternMatch, Field::kTid);
}
int queryUserSetFileInheritFlag(const char* path, UserSetRecord** records, int patternMatch) {
  return lm::queryField(path, records, patternMatch, Field::kInheritFlag);
}

int showUserSetFileOid(UserSetRecord** records) { return lm::showField(records, Field::kOid); }
int showUserSetFileSid(UserSetRecord** records) { return lm::showField(records, Field::kSid); }
int showUserSetFileTid(UserSetRecord** records) { return lm::showField(records, Field::kTid); }
int showUserSetFileInheritFlag(UserSetRecord** records) {
  return lm::showField(records, Field::kInheritFlag);
}

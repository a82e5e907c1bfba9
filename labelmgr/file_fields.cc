// Label fields of files: set, get, delete, clear and the user-set queries.
//
// Every change runs inside one BEGIN IMMEDIATE transaction of the state
// database: the rule is recorded and each file's label is read, changed and
// written back while the lock is held, so concurrent runs never lose each
// other's updates. Change messages go out after the commit.
#include <sys/stat.h>

#include <algorithm>
#include <memory>

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

std::string admitTarget(const char* path, bool pattern) {
  return pattern ? admitPattern(path) : admitExactPath(path);
}

int setField(const char* path, int patternMatch, Field field, const uint64_t value[3]) {
  bool pattern = patternMatch != 0;
  std::string target = admitTarget(path, pattern);
  if (target.empty()) return -1;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kCreate);
  if (db == nullptr) return -1;
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;

  FileRule rule;
  rule.field = field;
  rule.isPattern = pattern;
  rule.target = target;
  std::copy(value, value + 3, rule.value);
  if (!putFileRule(*db, rule)) return -1;

  std::vector<std::string> files = pattern ? filesCoveredBy(target) : std::vector{target};
  if (pattern) {
    // The new pattern is now the latest one, but a file's own exact rule still
    // beats it, as it will on restore.
    std::vector<FileRule> rules;
    if (!loadFileRules(*db, field, &rules)) return -1;
    RuleSet ruleSet(std::move(rules));
    files.erase(std::remove_if(files.begin(), files.end(),
                               [&](const std::string& file) {
                                 const FileRule* rule = ruleSet.decidingRule(field, file);
                                 return rule != nullptr && !rule->isPattern;
                               }),
                files.end());
  }
  std::string op = std::string("set-") + fieldName(field);
  std::vector<std::string> changes;
  LabelUndo undo;
  size_t failed = 0;
  for (const std::string& file : files) {
    if (updateLabel(
            file, [&](Label& label) { setLabelField(label, field, value); }, op, &changes, &undo))
      continue;
    if (!pattern) return -1;  // nothing written: the rollback undoes the rule
    ++failed;
  }
  if (!transaction.commit()) {
    undo.rollBack();
    return -1;
  }
  publishChanges(changes);
  if (failed != 0) {
    // The rule stays: it governs restore and later labelling all the same.
    ZLOG_ERROR("user-set %s recorded for %s, but %zu of %zu files could not be labelled",
               fieldName(field), target.c_str(), failed, files.size());
    return -1;
  }
  ZLOG_DEBUG("user-set %s recorded for %s, %zu files labelled", fieldName(field), target.c_str(),
             files.size());
  return 0;
}

// Gives `field` of each file the value that policy and the remaining rules
// decide. Files that vanished meanwhile are passed over.
size_t relabelField(const std::vector<std::string>& files, Field field, const LabelPolicy& policy,
                    const std::string& op, std::vector<std::string>* changes, LabelUndo* undo) {
  size_t failed = 0;
  for (const std::string& file : files) {
    struct stat st;
    if (lstat(file.c_str(), &st) != 0) continue;
    uint64_t value[3];
    getLabelField(policy.effectiveLabel(file, st), field, value);
    if (!updateLabel(
            file, [&](Label& label) { setLabelField(label, field, value); }, op, changes, undo))
      ++failed;
  }
  return failed;
}

int delField(const char* path, int patternMatch, Field field) {
  bool pattern = patternMatch != 0;
  std::string target = admitTarget(path, pattern);
  if (target.empty()) return -1;
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) {
    if (absent) ZLOG_ERROR("no user-set %s for %s", fieldName(field), target.c_str());
    return -1;
  }
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  int removed = deleteFileRule(*db, field, pattern, target);
  if (removed < 0) return -1;
  if (removed == 0) {
    ZLOG_ERROR("no user-set %s for %s", fieldName(field), target.c_str());
    return -1;
  }
  std::vector<std::string> files = pattern ? filesCoveredBy(target) : std::vector{target};
  std::unique_ptr<LabelPolicy> policy = LabelPolicy::loadFor(db.get(), files);
  if (policy == nullptr) return -1;
  std::vector<std::string> changes;
  LabelUndo undo;
  size_t failed =
      relabelField(files, field, *policy, std::string("del-") + fieldName(field), &changes, &undo);
  if (!pattern && failed != 0) return -1;
  if (!transaction.commit()) {
    undo.rollBack();
    return -1;
  }
  publishChanges(changes);
  if (failed != 0) {
    ZLOG_ERROR("user-set %s of %s removed, but %zu files could not be relabelled", fieldName(field),
               target.c_str(), failed);
    return -1;
  }
  return 0;
}

int clearField(Field field) {
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent ? 0 : -1;
  ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  std::vector<FileRule> rules;
  if (!loadFileRules(*db, field, &rules) || !deleteFileRules(*db, field)) return -1;
  std::vector<std::string> files;
  for (const FileRule& rule : rules) {
    if (!rule.isPattern) {
      files.push_back(rule.target);
      continue;
    }
    std::vector<std::string> covered = filesCoveredBy(rule.target);
    files.insert(files.end(), covered.begin(), covered.end());
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  std::unique_ptr<LabelPolicy> policy = LabelPolicy::loadFor(db.get(), files);
  if (policy == nullptr) return -1;
  std::vector<std::string> changes;
  LabelUndo undo;
  size_t failed = relabelField(files, field, *policy, std::string("clear-") + fieldName(field),
                               &changes, &undo);
  if (!transaction.commit()) {
    undo.rollBack();
    return -1;
  }
  publishChanges(changes);
  if (failed != 0) {
    ZLOG_ERROR("user-set %s values cleared, but %zu files could not be relabelled",
               fieldName(field), failed);
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
  bool pattern = patternMatch != 0;
  std::string target = admitTarget(path, pattern);
  if (target.empty()) return -1;
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent ? 0 : -1;
  std::vector<FileRule> rules;
  if (!loadFileRules(*db, field, &rules)) return -1;

  std::vector<RecordRow> rows;
  if (pattern) {
    for (const FileRule& rule : rules)
      if (patternCovers(target, rule.target)) rows.push_back(toRow(rule));
  } else {
    RuleSet ruleSet(std::move(rules));
    for (const FileRule* rule : ruleSet.applicableRules(field, target))
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
  std::string file = admitExactPath(path);
  if (file.empty()) return -1;
  Label label;
  if (label.getFromXattr(file, false) != 0) {
    ZLOG_WARN("%s has no readable label", file.c_str());
    return -1;
  }
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

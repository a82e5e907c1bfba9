// Setting and reading one label field of files.
//
// A set records the user-set rule and rewrites each covered file's label
// inside one BEGIN IMMEDIATE transaction of the state database, so that
// concurrent runs never lose each other's updates; change messages go out
// after the commit. A read looks at the file's label only.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/field_target.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/rule_set.h"
#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

int setField(const char* path, int patternMatch, Field field, const uint64_t value[3]) {
  FieldTarget target;
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

// Reads `field` of the file at `path` as a whole identifier.
int getId(const char* path, Field field, ZORV_ID* id) {
  uint64_t value[3];
  if (!placeGiven(id, "identifier") || getField(path, field, value) != 0) return -1;
  *id = ZORV_ID{value[0], value[1], value[2]};
  return 0;
}

// Reads `field` of the file at `path` as a number (the TID, the inherit flag).
int getNumber(const char* path, Field field, uint32_t* number) {
  uint64_t value[3];
  if (!placeGiven(number, "value") || getField(path, field, value) != 0) return -1;
  *number = static_cast<uint32_t>(value[0]);
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

int getFileOid(const char* path, ZORV_ID* oid) { return lm::getId(path, Field::kOid, oid); }
int getFileSid(const char* path, ZORV_ID* sid) { return lm::getId(path, Field::kSid, sid); }
int getFileTid(const char* path, uint32_t* tid) { return lm::getNumber(path, Field::kTid, tid); }
int getFileInheritFlag(const char* path, uint32_t* inheritFlag) {
  return lm::getNumber(path, Field::kInheritFlag, inheritFlag);
}

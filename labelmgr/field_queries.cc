// The user-set values of a label field: those that apply to a file or fall
// under a pattern, and all of them. Read from the state database only.
#include <algorithm>
#include <memory>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/field_target.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/rule_set.h"
#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

RecordRow toRow(const FileRule& rule) {
  RecordRow row;
  row.name = rule.target;
  std::copy(rule.value, rule.value + 3, row.value);
  return row;
}

// The user-set rules of `field`, none while there is no state database.
// False (logged) when the database cannot be read.
bool loadStoredRules(Field field, std::vector<FileRule>* rules) {
  bool absent = false;
  std::unique_ptr<StateDb> db = StateDb::open(StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr) return absent;
  return loadFileRules(*db, field, rules);
}

int queryField(const char* path, UserSetRecord** records, int patternMatch, Field field) {
  FieldTarget target;
  std::vector<FileRule> rules;
  if (!placeGiven(records, "records") || !admitTarget(path, patternMatch, &target) ||
      !loadStoredRules(field, &rules))
    return -1;
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
  std::vector<FileRule> rules;
  if (!placeGiven(records, "records") || !loadStoredRules(field, &rules)) return -1;
  std::vector<RecordRow> rows;
  for (const FileRule& rule : rules) rows.push_back(toRow(rule));
  return handOverRecords(rows, records);
}

}  // namespace
}  // namespace zorv::labelmgr

using zorv::labelmgr::Field;
namespace lm = zorv::labelmgr;

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

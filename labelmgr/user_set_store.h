// The user-set values kept in the state database: one rule per field and
// target for files, one id per name for packages.
//
// These functions only read and write rows; callers hold an
// ImmediateTransaction around every read-modify-write. Failures are logged by
// Statement and answered with false or -1.
#ifndef ZORV_LABELMGR_USER_SET_STORE_H_
#define ZORV_LABELMGR_USER_SET_STORE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "labelmgr/state_db.h"

namespace zorv::labelmgr {

/// The label fields a user can set.
enum class Field { kOid, kSid, kTid, kInheritFlag };

/// "oid", "sid", "tid", "inherit-flag": the name used in the database and in
/// change messages.
const char* fieldName(Field field);

/// A user-set value for one field of an exact canonical path or of every path a
/// wildcard pattern covers. OID and SID use all three values, TID and the
/// inherit flag the first.
struct FileRule {
  Field field = Field::kOid;
  bool isPattern = false;
  std::string target;
  uint64_t value[3] = {0, 0, 0};
  int64_t seq = 0;  // larger = set later
};

/// Records `rule`, replacing an earlier rule of the same field, kind and target.
bool putFileRule(StateDb& db, const FileRule& rule);
/// 1 when the rule existed and was removed, 0 when there was none, -1 on failure.
int deleteFileRule(StateDb& db, Field field, bool isPattern, const std::string& target);
/// Every rule of `field` (of all fields when none is given), oldest first.
bool loadFileRules(StateDb& db, std::optional<Field> field, std::vector<FileRule>* rules);
bool deleteFileRules(StateDb& db, Field field);

/// A package id set by a user.
struct PkgIdRule {
  std::string name;
  uint64_t id = 0;
};

bool putPkgId(StateDb& db, const std::string& name, uint64_t id);
/// 1 when removed, 0 when none was set, -1 on failure.
int deletePkgId(StateDb& db, const std::string& name);
/// Every user-set package id, oldest first.
bool loadPkgIds(StateDb& db, std::vector<PkgIdRule>* ids);
bool deletePkgIds(StateDb& db);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_USER_SET_STORE_H_

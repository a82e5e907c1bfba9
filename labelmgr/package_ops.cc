// Package ids: set, get, delete, clear, look up by id and the user-set
// queries. A user-set id wins over the installed package's own; see
// package_ids.h. Changing a package's id does not relabel its files: restore
// and the whole-tree labelling pick the new id up.
#include <cstring>
#include <memory>
#include <optional>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/dpkg_db.h"
#include "labelmgr/operation_util.h"
#include "labelmgr/package_ids.h"
#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"
#include "log/logger.h"

namespace lm = zorv::labelmgr;

namespace {

// The package ids as they stand; `db` may be null (no state yet).
std::optional<lm::PackageIds> loadPackageIds(lm::StateDb* db) {
  lm::PackageIds ids;
  if (!ids.load(db, lm::dpkgDirectory())) return std::nullopt;
  return ids;
}

// Opens the state database for reading; null with *absent when there is none yet.
std::unique_ptr<lm::StateDb> openExisting(bool* absent) {
  return lm::StateDb::open(lm::StateDb::OpenMode::kExisting, absent);
}

std::string effectiveIdText(const lm::PackageIds& ids, const std::string& name) {
  std::optional<uint64_t> id = ids.idOf(name);
  return id ? lm::hex16(*id) : "-";
}

}  // namespace

int setPkgId(const char* pkgName, uint64_t pkgId) {
  if (!lm::admitPackageName(pkgName)) return -1;
  // The package part of a file's OID is 0 for files of no package.
  if (pkgId == 0) {
    ZLOG_ERROR("package id 0 is reserved for files of no package: %s", pkgName);
    return -1;
  }
  std::optional<lm::StateLock> lock = lm::lockForChange();
  if (!lock) return -1;
  std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kCreate);
  if (db == nullptr) return -1;
  lm::ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  std::optional<lm::PackageIds> ids = loadPackageIds(db.get());
  if (!ids) return -1;
  // Ids must stay unique, or getPkgNameById could not answer.
  std::optional<std::string> holder = ids->nameOf(pkgId);
  if (holder && *holder != pkgName) {
    ZLOG_ERROR("package id %s for %s is already the id of %s", lm::hex16(pkgId).c_str(), pkgName,
               holder->c_str());
    return -1;
  }
  if (!lm::putPkgId(*db, pkgName, pkgId) || !lm::bumpRulesGeneration(*db) || !transaction.commit())
    return -1;
  lm::publishChanges({std::string("pkg set-id ") + pkgName + " " + lm::hex16(pkgId)});
  return 0;
}

int getPkgId(const char* pkgName, uint64_t* pkgId) {
  if (!lm::placeGiven(pkgId, "package id") || !lm::admitPackageName(pkgName)) return -1;
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr && !absent) return -1;
  std::optional<lm::PackageIds> ids = loadPackageIds(db.get());
  if (!ids) return -1;
  std::optional<uint64_t> id = ids->idOf(pkgName);
  if (!id) {
    ZLOG_ERROR("package %s is neither installed nor given an id", pkgName);
    return -1;
  }
  *pkgId = *id;
  return 0;
}

char* getPkgNameById(uint64_t pkgId) {
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr && !absent) return nullptr;
  std::optional<lm::PackageIds> ids = loadPackageIds(db.get());
  if (!ids) return nullptr;
  std::optional<std::string> name = ids->nameOf(pkgId);
  if (!name) {
    ZLOG_ERROR("no package has the id %s", lm::hex16(pkgId).c_str());
    return nullptr;
  }
  char* copy = strdup(name->c_str());
  if (copy == nullptr) ZLOG_ERROR("out of memory");
  return copy;
}

int delUserSetPkgId(const char* pkgName) {
  if (!lm::admitPackageName(pkgName)) return -1;
  std::optional<lm::StateLock> lock = lm::lockForChange();
  if (!lock) return -1;
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr) {
    if (absent) ZLOG_ERROR("no user-set id for package %s", pkgName);
    return -1;
  }
  lm::ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  int removed = lm::deletePkgId(*db, pkgName);
  if (removed < 0 || (removed > 0 && !lm::bumpRulesGeneration(*db))) return -1;
  if (removed == 0) {
    ZLOG_ERROR("no user-set id for package %s", pkgName);
    return -1;
  }
  std::optional<lm::PackageIds> ids = loadPackageIds(db.get());
  if (!ids || !transaction.commit()) return -1;
  lm::publishChanges({std::string("pkg del-id ") + pkgName + " " + effectiveIdText(*ids, pkgName)});
  return 0;
}

int clearUserSetPkgId() {
  std::optional<lm::StateLock> lock = lm::lockForChange();
  if (!lock) return -1;
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr) return absent ? 0 : -1;
  lm::ImmediateTransaction transaction(*db);
  if (!transaction.begun()) return -1;
  std::vector<lm::PkgIdRule> cleared;
  if (!lm::loadPkgIds(*db, &cleared) || !lm::deletePkgIds(*db) ||
      (!cleared.empty() && !lm::bumpRulesGeneration(*db)))
    return -1;
  std::optional<lm::PackageIds> ids = loadPackageIds(db.get());
  if (!ids || !transaction.commit()) return -1;
  std::vector<std::string> changes;
  for (const lm::PkgIdRule& rule : cleared)
    changes.push_back("pkg clear-id " + rule.name + " " + effectiveIdText(*ids, rule.name));
  lm::publishChanges(changes);
  return 0;
}

int queryUserSetPkgId(const char* pkgName, uint64_t* pkgId) {
  if (!lm::placeGiven(pkgId, "package id") || !lm::admitPackageName(pkgName)) return -1;
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr) return absent ? 1 : -1;
  std::vector<lm::PkgIdRule> ids;
  if (!lm::loadPkgIds(*db, &ids)) return -1;
  for (const lm::PkgIdRule& rule : ids) {
    if (rule.name == pkgName) {
      *pkgId = rule.id;
      return 0;
    }
  }
  return 1;  // nothing set: an answer, not a failure
}

int showUserSetPkgId(UserSetRecord** records) {
  if (!lm::placeGiven(records, "records")) return -1;
  bool absent = false;
  std::unique_ptr<lm::StateDb> db = openExisting(&absent);
  if (db == nullptr) return absent ? 0 : -1;
  std::vector<lm::PkgIdRule> ids;
  if (!lm::loadPkgIds(*db, &ids)) return -1;
  std::vector<lm::RecordRow> rows;
  for (const lm::PkgIdRule& rule : ids) {
    lm::RecordRow row;
    row.name = rule.name;
    row.value[0] = rule.id;
    rows.push_back(row);
  }
  return lm::handOverRecords(rows, records);
}

// Package ids: the id a user set for a package wins; an installed package
// without one has the last 64 bits of the SM3 digest of its name.
#ifndef ZORV_LABELMGR_PACKAGE_IDS_H_
#define ZORV_LABELMGR_PACKAGE_IDS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "labelmgr/state_db.h"
#include "labelmgr/user_set_store.h"

namespace zorv::labelmgr {

/// A Debian package name: lower-case letters, digits, '+', '-' and '.', two
/// characters or more, starting with a letter or digit. Logs one error line
/// naming the text when it is not.
bool admitPackageName(const char* name);

/// The effective ids of every package known now. Built once, then only read:
/// thread-safe.
class PackageIds {
 public:
  /// Reads the installed packages of `dpkgDir` and the user-set ids of `db`
  /// (none when `db` is null, i.e. there is no state yet). False (logged)
  /// when the state database or the dpkg status file cannot be read.
  bool load(StateDb* db, const std::string& dpkgDir);

  /// Installed package names, sorted (the indexes of OwnershipIndex).
  const std::vector<std::string>& installed() const { return installed_; }
  uint64_t idOfInstalled(uint32_t index) const { return installedIds_[index]; }

  /// The user-set id, else the installed package's own, else nothing.
  std::optional<uint64_t> idOf(const std::string& name) const;
  /// The package whose effective id is `id`: a user-set one first (the
  /// earliest set), else the first installed package in name order.
  std::optional<std::string> nameOf(uint64_t id) const;
  /// The user-set ids, oldest first.
  const std::vector<PkgIdRule>& userSet() const { return userSet_; }

 private:
  std::vector<std::string> installed_;
  std::vector<uint64_t> installedIds_;
  std::vector<PkgIdRule> userSet_;
  std::unordered_map<std::string, uint64_t> userSetByName_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PACKAGE_IDS_H_

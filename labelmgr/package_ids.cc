#include "labelmgr/package_ids.h"

#include <algorithm>
#include <cstring>

#include "labelmgr/dpkg_db.h"
#include "labelmgr/path_digest.h"
#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

// Names go into a 4096-byte record with their NUL.
constexpr size_t kMaxNameLength = 4095;

bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

}  // namespace

bool admitPackageName(const char* name) {
  if (name == nullptr) {
    ZLOG_ERROR("no package name given");
    return false;
  }
  size_t length = strlen(name);
  bool ok = length >= 2 && length <= kMaxNameLength && isNameChar(name[0]) && name[0] != '+' &&
            name[0] != '-' && name[0] != '.' && std::all_of(name, name + length, isNameChar);
  if (!ok) ZLOG_ERROR("invalid package name: %s", name);
  return ok;
}

bool PackageIds::load(StateDb* db, const std::string& dpkgDir) {
  // Every package id and every label is made from digests: without them the
  // operation fails here, before anything is written.
  if (!digestsAvailable()) return false;
  if (!readInstalledPackages(dpkgDir, &installed_)) return false;
  userSet_.clear();
  userSetByName_.clear();
  if (db != nullptr && !loadPkgIds(*db, &userSet_)) return false;
  for (const PkgIdRule& rule : userSet_) userSetByName_[rule.name] = rule.id;
  installedIds_.clear();
  installedIds_.reserve(installed_.size());
  for (const std::string& name : installed_) {
    auto user = userSetByName_.find(name);
    installedIds_.push_back(user != userSetByName_.end() ? user->second : sm3Last64Bits(name));
  }
  return true;
}

std::optional<uint64_t> PackageIds::idOf(const std::string& name) const {
  auto user = userSetByName_.find(name);
  if (user != userSetByName_.end()) return user->second;
  auto it = std::lower_bound(installed_.begin(), installed_.end(), name);
  if (it == installed_.end() || *it != name) return std::nullopt;
  return installedIds_[it - installed_.begin()];
}

std::optional<std::string> PackageIds::nameOf(uint64_t id) const {
  for (const PkgIdRule& rule : userSet_)
    if (rule.id == id) return rule.name;
  for (size_t i = 0; i < installed_.size(); ++i)
    if (installedIds_[i] == id) return installed_[i];
  return std::nullopt;
}

}  // namespace zorv::labelmgr

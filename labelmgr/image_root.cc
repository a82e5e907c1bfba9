#include "labelmgr/image_root.h"

#include <fcntl.h>

#include <cstring>

#include "labelmgr/dpkg_db.h"
#include "labelmgr/exclude_rules.h"
#include "labelmgr/state_db.h"

namespace zorv::labelmgr {

bool ImageRoot::open(const std::string& dir, std::string* error) {
  PinnedEntry entry;
  if (resolvePinned(dir, LinkRule::kSafe, true, &entry, error) != 0) return false;
  UniqueFd fd;
  int rc = openPinnedDirectory(entry, &fd);
  if (rc != 0) {
    *error = "cannot open the image root " + entry.path + ": " + std::strerror(-rc);
    return false;
  }
  fd_ = std::move(fd);
  path_ = entry.path == "/" ? "" : entry.path;
  return true;
}

std::string ImageRoot::hostPath(const std::string& path) const {
  if (isSystem()) return path;
  return path == "/" ? (path_.empty() ? "/" : path_) : path_ + path;
}

std::string ImageRoot::canonical(const std::string& path) const {
  PinnedEntry entry;
  std::string error;
  return resolve(path, true, &entry, &error) == 0 ? entry.path : path;
}

std::string ImageRoot::dpkgDirectory() const {
  if (isSystem()) return labelmgr::dpkgDirectory();
  return hostPath(canonical(kDpkgDirectory));
}

std::string ImageRoot::stateDirectory() const {
  if (isSystem()) return labelmgr::stateDirectory();
  return hostPath(canonical(builtInStateDirectory()));
}

std::string ImageRoot::excludeDirectory() const {
  if (isSystem()) return labelmgr::excludeDirectory();
  return hostPath(canonical(kExcludeDirectory));
}

}  // namespace zorv::labelmgr

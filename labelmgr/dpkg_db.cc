#include "labelmgr/dpkg_db.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "log/logger.h"

namespace zorv::labelmgr {

namespace {

// The state word ending "Status: want flag state"; only these states
// leave a package's files in place and configured.
bool isInstalledState(const std::string& status) {
  size_t last = status.find_last_of(' ');
  std::string state = last == std::string::npos ? status : status.substr(last + 1);
  return state == "installed" || state == "triggers-pending" || state == "triggers-awaited";
}

// The value of a "Name: value" line, without surrounding blanks.
std::string fieldValue(const std::string& line, size_t nameLength) {
  size_t first = line.find_first_not_of(" \t", nameLength);
  if (first == std::string::npos) return "";
  size_t last = line.find_last_not_of(" \t");
  return line.substr(first, last - first + 1);
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

std::string dpkgDirectory() {
  const char* dir = getenv("ZORV_LABELMGR_DPKG_DIR");
  if (dir != nullptr && *dir != '\0') return dir;
  return "/var/lib/dpkg";
}

std::vector<std::string> readInstalledPackages(const std::string& dpkgDir) {
  std::vector<std::string> names;
  std::ifstream status(dpkgDir + "/status");
  if (!status) {
    ZLOG_DEBUG("no dpkg status file in %s", dpkgDir.c_str());
    return names;
  }
  std::string line, name, state;
  auto finishParagraph = [&] {
    if (!name.empty() && isInstalledState(state)) names.push_back(name);
    name.clear();
    state.clear();
  };
  while (std::getline(status, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) {
      finishParagraph();
    } else if (line.compare(0, 8, "Package:") == 0) {
      name = fieldValue(line, 8);
    } else if (line.compare(0, 7, "Status:") == 0) {
      state = fieldValue(line, 7);
    }
  }
  finishParagraph();
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

void OwnershipIndex::load(const std::string& dpkgDir, const std::vector<std::string>& packages) {
  owners_.clear();
  std::string infoDir = dpkgDir + "/info";
  std::unique_ptr<DIR, DirCloser> dir(opendir(infoDir.c_str()));
  if (!dir) {
    ZLOG_DEBUG("no dpkg file lists in %s", infoDir.c_str());
    return;
  }
  owners_.reserve(1 << 17);
  // Many listed paths share a directory; resolve each directory once.
  std::unordered_map<std::string, std::string> realDirs;
  auto realDir = [&realDirs](const std::string& listed) -> const std::string& {
    auto found = realDirs.find(listed);
    if (found != realDirs.end()) return found->second;
    char resolved[PATH_MAX];
    std::string real = realpath(listed.c_str(), resolved) != nullptr ? resolved : listed;
    return realDirs.emplace(listed, real).first->second;
  };

  while (struct dirent* entry = readdir(dir.get())) {
    std::string file = entry->d_name;
    if (file.size() <= 5 || file.compare(file.size() - 5, 5, ".list") != 0) continue;
    std::string name = file.substr(0, file.size() - 5);
    name = name.substr(0, name.find(':'));
    auto it = std::lower_bound(packages.begin(), packages.end(), name);
    if (it == packages.end() || *it != name) continue;
    uint32_t owner = static_cast<uint32_t>(it - packages.begin());

    std::ifstream list(infoDir + "/" + file);
    std::string path;
    while (std::getline(list, path)) {
      if (path.size() < 2 || path[0] != '/') continue;  // "/." heads every list
      while (path.size() > 1 && path.back() == '/') path.pop_back();
      size_t slash = path.rfind('/');
      std::string dirPart = slash == 0 ? "/" : path.substr(0, slash);
      const std::string& real = realDir(dirPart);
      std::string key = (real == "/" ? "" : real) + path.substr(slash);
      auto [slot, inserted] = owners_.emplace(std::move(key), owner);
      if (!inserted && slot->second != owner) slot->second = kShared;
    }
  }
  ZLOG_DEBUG("dpkg file lists: %zu paths of %zu packages", owners_.size(), packages.size());
}

uint32_t OwnershipIndex::ownerOf(const std::string& canonicalPath) const {
  auto found = owners_.find(canonicalPath);
  if (found == owners_.end() || found->second == kShared) return kNoOwner;
  return found->second;
}

}  // namespace zorv::labelmgr

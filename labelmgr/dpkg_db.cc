#include "labelmgr/dpkg_db.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>

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

namespace {

// Canonical forms of the directories named in file lists. Most listed
// directories are real, so each costs one lstat() on top of its parent's
// answer; only a link is resolved whole.
class DirResolver {
 public:
  const std::string& resolve(const std::string& dir) {
    auto found = cache_.find(dir);
    if (found != cache_.end()) return found->second;
    std::string real;
    size_t slash = dir.rfind('/');
    if (dir == "/" || slash == std::string::npos) {
      real = dir;
    } else {
      const std::string& parent = resolve(slash == 0 ? "/" : dir.substr(0, slash));
      struct stat st;
      char resolved[PATH_MAX];
      if (lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
          realpath(dir.c_str(), resolved) != nullptr)
        real = resolved;
      else
        real = (parent == "/" ? "" : parent) + dir.substr(slash);
    }
    return cache_.emplace(dir, std::move(real)).first->second;
  }

 private:
  std::unordered_map<std::string, std::string> cache_;
};

// The whole file, or "" when it cannot be read.
std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return "";
  std::string content(static_cast<size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(content.data(), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<size_t>(in.gcount()));
  return content;
}

}  // namespace

void OwnershipIndex::load(const std::string& dpkgDir, const std::vector<std::string>& packages,
                          const std::unordered_set<std::string>* only, const std::string* under) {
  owners_.clear();
  // With a short list of wanted paths, most listed lines are passed over on
  // their last name alone, before any directory is resolved.
  std::unordered_set<std::string_view> wantedNames;
  if (only != nullptr) {
    for (const std::string& path : *only)
      wantedNames.insert(std::string_view(path).substr(path.rfind('/') + 1));
  }
  std::string infoDir = dpkgDir + "/info";
  std::unique_ptr<DIR, DirCloser> dir(opendir(infoDir.c_str()));
  if (!dir) {
    ZLOG_DEBUG("no dpkg file lists in %s", infoDir.c_str());
    return;
  }
  if (only == nullptr) owners_.reserve(1 << 17);
  DirResolver dirs;
  std::string key, lastDir;
  const std::string* lastReal = nullptr;
  while (struct dirent* entry = readdir(dir.get())) {
    std::string file = entry->d_name;
    if (file.size() <= 5 || file.compare(file.size() - 5, 5, ".list") != 0) continue;
    std::string name = file.substr(0, std::min(file.size() - 5, file.find(':')));
    auto it = std::lower_bound(packages.begin(), packages.end(), name);
    if (it == packages.end() || *it != name) continue;
    uint32_t owner = static_cast<uint32_t>(it - packages.begin());

    std::string list = slurp(infoDir + "/" + file);
    for (size_t begin = 0, end; begin < list.size(); begin = end + 1) {
      end = list.find('\n', begin);
      if (end == std::string::npos) end = list.size();
      size_t last = end;
      while (last > begin + 1 && list[last - 1] == '/') --last;
      // "/." heads every list; anything not absolute is not a path.
      if (last - begin < 2 || list[begin] != '/' || (last - begin == 2 && list[begin + 1] == '.'))
        continue;
      size_t slash = list.rfind('/', last - 1);
      if (only != nullptr &&
          wantedNames.count(std::string_view(list).substr(slash + 1, last - slash - 1)) == 0)
        continue;
      // Lines of one list come grouped by directory: ask the resolver only
      // when the directory changes.
      std::string_view listedDir(list.data() + begin, slash == begin ? 1 : slash - begin);
      if (listedDir != lastDir) {
        lastDir.assign(listedDir);
        lastReal = &dirs.resolve(lastDir);
      }
      const std::string& real = *lastReal;
      key.assign(real == "/" ? "" : real);
      key.append(list, slash, last - slash);
      if (only != nullptr && only->count(key) == 0) continue;
      if (under != nullptr &&
          !(key.compare(0, under->size(), *under) == 0 &&
            (key.size() == under->size() || key[under->size()] == '/' || *under == "/")))
        continue;
      auto [slot, inserted] = owners_.emplace(key, owner);
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

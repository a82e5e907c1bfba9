#include "labelmgr/dpkg_db.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "common/dir_stream.h"
#include "common/env_path.h"
#include "common/unique_fd.h"
#include "common/whole_file.h"
#include "labelmgr/image_root.h"
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

}  // namespace

std::string dpkgDirectory() { return envPathOr("ZORV_LABELMGR_DPKG_DIR", kDpkgDirectory); }

bool readInstalledPackages(const std::string& dpkgDir, std::vector<std::string>* names) {
  names->clear();
  std::string path = dpkgDir + "/status";
  std::string content;
  int error = readWholeFile(path.c_str(), &content, false) ? 0 : errno;
  if (error == ENOENT) {
    ZLOG_DEBUG("no dpkg status file in %s", dpkgDir.c_str());
    return true;
  }
  if (error != 0) {
    ZLOG_ERROR("cannot read the dpkg status file %s: %s", path.c_str(), std::strerror(error));
    return false;
  }
  std::string name, state;
  auto finishParagraph = [&] {
    if (!name.empty() && isInstalledState(state)) names->push_back(name);
    name.clear();
    state.clear();
  };
  for (size_t begin = 0, end; begin < content.size(); begin = end + 1) {
    end = content.find('\n', begin);
    if (end == std::string::npos) end = content.size();
    std::string line = content.substr(begin, end - begin);
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
  std::sort(names->begin(), names->end());
  names->erase(std::unique(names->begin(), names->end()), names->end());
  return true;
}

namespace {

// Canonical forms of the directories named in file lists. Most listed
// directories are real, so each costs one lstat() on top of its parent's
// answer; only a link is resolved whole.
class DirResolver {
 public:
  explicit DirResolver(const ImageRoot* image) : image_(image) {}

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
      std::string inParent = (parent == "/" ? "" : parent) + dir.substr(slash);
      // In an image, only the last component may still be a link.
      int rc = image_ == nullptr
                   ? lstat(dir.c_str(), &st)
                   : fstatat(image_->fd(), inParent.c_str() + 1, &st, AT_SYMLINK_NOFOLLOW);
      // A directory that is not there holds nothing; one that cannot be
      // examined might be a link, and keying its files wrongly would label
      // them as nobody's.
      if (rc != 0 && errno != ENOENT && errno != ENOTDIR && failedDir_.empty()) {
        failedDir_ = dir;
        failure_ = errno;
      }
      char resolved[PATH_MAX];
      if (rc == 0 && S_ISLNK(st.st_mode) && image_ != nullptr)
        real = image_->canonical(inParent);
      else if (rc == 0 && S_ISLNK(st.st_mode) && realpath(dir.c_str(), resolved) != nullptr)
        real = resolved;
      else
        real = std::move(inParent);
    }
    return cache_.emplace(dir, std::move(real)).first->second;
  }

  /// A listed directory that could not be examined ("" when none), and why.
  const std::string& failedDir() const { return failedDir_; }
  int failure() const { return failure_; }

 private:
  const ImageRoot* image_;
  std::unordered_map<std::string, std::string> cache_;
  std::string failedDir_;
  int failure_ = 0;
};

struct ListFile {
  std::string name;  // within the info directory
  uint32_t owner;
};

// Which listed paths are kept, and how each is keyed.
struct ListFilter {
  const std::unordered_set<std::string>* only = nullptr;
  std::unordered_set<std::string_view> wantedNames;  // last names of `only`
  const std::string* under = nullptr;
  std::string_view underParent;  // directory holding `under` ("" when under is "/")
  std::string_view underName;    // and its last name
};

// Reads file lists one after another into one index.
class ListReader {
 public:
  ListReader(const ListFilter& filter, const ImageRoot* image) : filter_(filter), dirs_(image) {}

  /// False (logged) when the list cannot be read whole.
  bool read(const std::string& path, uint32_t owner) {
    if (!readWholeFile(path.c_str(), &list_, false)) {
      int error = errno;
      ZLOG_ERROR("cannot read the dpkg file list %s: %s", path.c_str(), std::strerror(error));
      return false;
    }
    const std::string& list = list_;
    // Lines of one list come grouped by directory: the directory is resolved,
    // and judged against `under`, only when it changes.
    lastDir_.clear();
    lastReal_ = nullptr;
    for (size_t begin = 0, end; begin < list.size(); begin = end + 1) {
      end = list.find('\n', begin);
      if (end == std::string::npos) end = list.size();
      size_t last = end;
      while (last > begin + 1 && list[last - 1] == '/') --last;
      // "/." heads every list; anything not absolute is not a path.
      if (last - begin < 2 || list[begin] != '/' || (last - begin == 2 && list[begin + 1] == '.'))
        continue;
      size_t slash = list.rfind('/', last - 1);
      std::string_view name(list.data() + slash + 1, last - slash - 1);
      if (filter_.only != nullptr && filter_.wantedNames.count(name) == 0) continue;
      std::string_view listedDir(list.data() + begin, slash == begin ? 1 : slash - begin);
      if (lastReal_ == nullptr || listedDir != lastDir_) {
        lastDir_.assign(listedDir);
        lastReal_ = &dirs_.resolve(lastDir_);
        reach_ = reachOf(*lastReal_);
      }
      if (reach_ == Reach::kNone || (reach_ == Reach::kUnderItself && name != filter_.underName))
        continue;
      const std::string& real = *lastReal_;
      key_.assign(real == "/" ? "" : real);
      key_.append(list, slash, last - slash);
      if (filter_.only != nullptr && filter_.only->count(key_) == 0) continue;
      auto [slot, inserted] = owners.emplace(key_, owner);
      if (!inserted && slot->second != owner) slot->second = OwnershipIndex::kShared;
    }
    if (!dirs_.failedDir().empty()) {
      ZLOG_ERROR("cannot examine %s, listed in the dpkg file list %s: %s",
                 dirs_.failedDir().c_str(), path.c_str(), std::strerror(dirs_.failure()));
      return false;
    }
    return true;
  }

  std::unordered_map<std::string, uint32_t> owners;

 private:
  // Which of the names in the canonical directory `real` can lie inside
  // `under` (the directory itself included).
  enum class Reach { kAll, kUnderItself, kNone };
  Reach reachOf(const std::string& real) const {
    if (filter_.under == nullptr) return Reach::kAll;
    const std::string& under = *filter_.under;
    if (under == "/") return Reach::kAll;
    if (real.compare(0, under.size(), under) == 0 &&
        (real.size() == under.size() || real[under.size()] == '/'))
      return Reach::kAll;
    return real == filter_.underParent ? Reach::kUnderItself : Reach::kNone;
  }

  const ListFilter& filter_;
  DirResolver dirs_;
  std::string list_, lastDir_, key_;
  const std::string* lastReal_ = nullptr;
  Reach reach_ = Reach::kAll;
};

}  // namespace

bool OwnershipIndex::load(const std::string& dpkgDir, const std::vector<std::string>& packages,
                          const std::unordered_set<std::string>* only, const std::string* under,
                          const ImageRoot* image) {
  owners_.clear();
  ListFilter filter;
  // With a short list of wanted paths, most listed lines are passed over on
  // their last name alone, before any directory is resolved.
  filter.only = only;
  if (only != nullptr) {
    for (const std::string& path : *only)
      filter.wantedNames.insert(std::string_view(path).substr(path.rfind('/') + 1));
  }
  filter.under = under;
  if (under != nullptr && *under != "/") {
    size_t slash = under->rfind('/');
    filter.underParent =
        slash == 0 ? std::string_view("/") : std::string_view(*under).substr(0, slash);
    filter.underName = std::string_view(*under).substr(slash + 1);
  }

  std::string infoDir = dpkgDir + "/info";
  std::vector<ListFile> lists;
  {
    UniqueFd fd(open(infoDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int error = fd ? 0 : errno;
    if (error == ENOENT) {
      ZLOG_DEBUG("no dpkg file lists in %s", infoDir.c_str());
      return true;
    }
    DirStream dir(std::move(fd));
    DirStream::Entry entry;
    while (error == 0 && dir.next(&entry)) {
      std::string_view file = entry.name;
      if (file.size() <= 5 || file.substr(file.size() - 5) != ".list") continue;
      std::string name(file.substr(0, std::min(file.size() - 5, file.find(':'))));
      auto it = std::lower_bound(packages.begin(), packages.end(), name);
      if (it == packages.end() || *it != name) continue;
      lists.push_back(ListFile{std::string(file), static_cast<uint32_t>(it - packages.begin())});
    }
    if (error == 0) error = dir.error();
    if (error != 0) {
      ZLOG_ERROR("cannot read the dpkg file lists in %s: %s", infoDir.c_str(),
                 std::strerror(error));
      return false;
    }
  }

  if (image != nullptr && image->isSystem()) image = nullptr;
  ListReader reader(filter, image);
  if (only == nullptr) reader.owners.reserve(1 << 17);
  for (const ListFile& list : lists) {
    if (!reader.read(infoDir + "/" + list.name, list.owner)) return false;
  }
  owners_ = std::move(reader.owners);
  ZLOG_DEBUG("dpkg file lists: %zu paths of %zu packages", owners_.size(), packages.size());
  return true;
}

uint32_t OwnershipIndex::ownerOf(const std::string& canonicalPath) const {
  if (owners_.empty()) return kNoOwner;  // spares hashing the path
  auto found = owners_.find(canonicalPath);
  if (found == owners_.end() || found->second == kShared) return kNoOwner;
  return found->second;
}

}  // namespace zorv::labelmgr

#include "common/safe_path.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include "common/pinned_walker.h"

namespace zorv {
namespace {

constexpr int kMaxLinks = 40;  // as the kernel allows

// One step still to take: a name, or the check that a followed link ended
// on something its directory's owner owns.
struct Step {
  std::string name;
  bool ownerCheck = false;
  uid_t owner = 0;
  std::string link;  // the link's path, for the message
};

void pushComponents(const std::string& path, std::deque<Step>* steps) {
  std::vector<Step> parts;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    if (end > begin) parts.push_back(Step{path.substr(begin, end - begin), false, 0, ""});
    begin = end + 1;
  }
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) steps->push_front(*part);
}

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

int fail(int error, std::string* message, const std::string& text) {
  if (message != nullptr) *message = text;
  return -error;
}

bool stickyAndOpen(const struct stat& dir) {
  return (dir.st_mode & S_ISVTX) != 0 && (dir.st_mode & S_IWOTH) != 0;
}

UniqueFd openRoot(int rootFd) {
  return UniqueFd(rootFd < 0 ? ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)
                             : ::openat(rootFd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

int resolvePinned(const std::string& path, LinkRule rule, bool followLast, PinnedEntry* entry,
                  std::string* error) {
  return resolvePinnedIn(-1, path, rule, followLast, entry, error);
}

int resolvePinnedIn(int rootFd, const std::string& path, LinkRule rule, bool followLast,
                    PinnedEntry* entry, std::string* error) {
  if (path.empty()) return fail(ENOENT, error, "empty path");
  std::deque<Step> steps;
  pushComponents(path, &steps);
  if (path[0] != '/' && rootFd < 0) {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) == nullptr)
      return fail(errno, error, "cannot resolve " + path + ": " + std::strerror(errno));
    pushComponents(cwd, &steps);
  }

  // The object reached so far (always a directory until the last step), its
  // canonical path and the directory it was found in.
  UniqueFd current = openRoot(rootFd);
  if (!current) return fail(errno, error, std::string("cannot open /: ") + std::strerror(errno));
  struct stat currentStat;
  if (::fstat(current.get(), &currentStat) != 0)
    return fail(errno, error, std::string("cannot stat /: ") + std::strerror(errno));
  std::string currentPath = "/";
  UniqueFd parent;
  std::string name = ".";
  int links = 0;

  while (!steps.empty()) {
    Step step = std::move(steps.front());
    steps.pop_front();
    if (step.ownerCheck) {
      if (currentStat.st_uid != step.owner) {
        return fail(ENOLINK, error,
                    "refusing to follow the symbolic link " + step.link +
                        ": it leads to a file of another owner than its directory's");
      }
      continue;
    }
    if (step.name == ".") continue;
    if (!S_ISDIR(currentStat.st_mode))
      return fail(ENOTDIR, error,
                  "cannot resolve " + path + ": " + currentPath + " is no directory");
    if (step.name == "..") {
      if (currentPath == "/") continue;
      UniqueFd up(::openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
      if (!up || ::fstat(up.get(), &currentStat) != 0)
        return fail(errno, error, "cannot resolve " + path + ": " + std::strerror(errno));
      current = std::move(up);
      currentPath = parentOf(currentPath);
      name = ".";
      parent.reset();
      continue;
    }
    UniqueFd next(::openat(current.get(), step.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat nextStat;
    if (!next || ::fstat(next.get(), &nextStat) != 0) {
      int cause = errno;
      return fail(cause, error,
                  "cannot resolve " + path + ": " + joinPath(currentPath, step.name.c_str()) + ": " +
                      std::strerror(cause));
    }
    std::string nextPath = joinPath(currentPath, step.name.c_str());
    bool last = true;
    for (const Step& rest : steps) {
      if (!rest.ownerCheck && rest.name != ".") {
        last = false;
        break;
      }
    }
    if (S_ISLNK(nextStat.st_mode) && (!last || followLast)) {
      if (rule == LinkRule::kNever)
        return fail(ENOLINK, error,
                    "cannot resolve " + path + ": " + nextPath + " is a symbolic link");
      if (++links > kMaxLinks)
        return fail(ELOOP, error, "cannot resolve " + path + ": too many symbolic links");
      if (stickyAndOpen(currentStat)) {
        if (nextStat.st_uid != 0 && nextStat.st_uid != currentStat.st_uid) {
          return fail(ENOLINK, error,
                      "refusing to follow the symbolic link " + nextPath +
                          ": it is not owned by root or its directory's owner");
        }
      } else if (currentStat.st_uid != 0) {
        steps.push_front(Step{"", true, currentStat.st_uid, nextPath});
      }
      char target[PATH_MAX];
      ssize_t size = ::readlinkat(next.get(), "", target, sizeof target - 1);
      if (size < 0)
        return fail(errno, error,
                    "cannot read the symbolic link " + nextPath + ": " + std::strerror(errno));
      target[size] = '\0';
      pushComponents(target, &steps);
      if (target[0] == '/') {
        UniqueFd root = openRoot(rootFd);
        if (!root || ::fstat(root.get(), &currentStat) != 0)
          return fail(errno, error, std::string("cannot open /: ") + std::strerror(errno));
        current = std::move(root);
        currentPath = "/";
        name = ".";
        parent.reset();
      }
      continue;
    }
    parent = std::move(current);
    current = std::move(next);
    currentStat = nextStat;
    currentPath = std::move(nextPath);
    name = step.name;
  }

  if (!parent) {
    // The entry is a directory reached through ".." or "/": pin it as "."
    // of itself.
    parent = std::move(current);
    name = ".";
  }
  entry->dir = std::move(parent);
  entry->name = std::move(name);
  entry->path = std::move(currentPath);
  entry->st = currentStat;
  return 0;
}

int openPinnedDirectory(const PinnedEntry& entry, UniqueFd* dir) {
  int fd = ::openat(entry.dir.get(), entry.name.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ELOOP ? -ENOTDIR : -errno;
  struct stat st;
  if (::fstat(fd, &st) != 0 || st.st_dev != entry.st.st_dev || st.st_ino != entry.st.st_ino) {
    ::close(fd);
    return -ESTALE;  // replaced since it was resolved
  }
  dir->reset(fd);
  return 0;
}

}  // namespace zorv

#include "labelmgr/state_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/safe_path.h"

namespace zorv::labelmgr {
namespace {

int fail(int error, std::string* message, const std::string& text) {
  if (message != nullptr) *message = text;
  return -error;
}

bool ownedByUs(const struct stat& st) { return st.st_uid == 0 || st.st_uid == ::geteuid(); }

std::string modeText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Why a directory is not safe to keep state in, or "" when it is. An ancestor
// that is sticky may be writable by others: they cannot rename our entry.
std::string directoryProblem(const struct stat& st, bool ancestor) {
  if (!S_ISDIR(st.st_mode)) return "not a directory";
  if (!ownedByUs(st)) return "owned by uid " + std::to_string(st.st_uid) + ", not by root";
  bool sticky = (st.st_mode & S_ISVTX) != 0;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(ancestor && sticky))
    return "writable by group or others (mode " + modeText(st.st_mode) + ")";
  return "";
}

// Creates `dir` and its missing parents; the state directory itself is private.
int makeDirectories(const std::string& dir, std::string* error) {
  for (size_t slash = dir.find('/', 1); slash != std::string::npos;
       slash = dir.find('/', slash + 1)) {
    std::string parent = dir.substr(0, slash);
    if (::mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST)
      return fail(errno, error, "cannot create directory " + parent + ": " + std::strerror(errno));
  }
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
    return fail(errno, error, "cannot create state directory " + dir + ": " + std::strerror(errno));
  return 0;
}

}  // namespace

int openStateDir(const std::string& path, bool create, StateDir* dir, std::string* error) {
  std::string wanted = path;
  while (wanted.size() > 1 && wanted.back() == '/') wanted.pop_back();
  if (create) {
    int rc = makeDirectories(wanted, error);
    if (rc != 0) return rc;
  }
  PinnedEntry entry;
  std::string why;
  int rc = resolvePinned(wanted, LinkRule::kSafe, true, &entry, &why);
  if (rc == -ENOENT) return fail(ENOENT, error, "state directory " + wanted + " does not exist");
  if (rc != 0) return fail(-rc, error, "state directory " + wanted + ": " + why);

  // Whoever can change a directory above could move ours away and put their
  // own in its place, so the whole chain must be ours.
  const std::string& canonical = entry.path;
  for (size_t end = 1; end < canonical.size(); end = canonical.find('/', end + 1)) {
    std::string ancestor = canonical.substr(0, end);
    if (end == 1) ancestor = "/";
    struct stat st;
    if (::lstat(ancestor.c_str(), &st) != 0)
      return fail(errno, error,
                  "state directory " + canonical + ": cannot check " + ancestor + ": " +
                      std::strerror(errno));
    std::string problem = directoryProblem(st, true);
    if (!problem.empty())
      return fail(
          EPERM, error,
          "state directory " + canonical + " is not safe to use: " + ancestor + " is " + problem);
  }

  UniqueFd fd;
  rc = openPinnedDirectory(entry, &fd);
  if (rc != 0)
    return fail(-rc, error, "cannot open state directory " + canonical + ": " + std::strerror(-rc));
  struct stat st;
  if (::fstat(fd.get(), &st) != 0)
    return fail(errno, error,
                "cannot check state directory " + canonical + ": " + std::strerror(errno));
  std::string problem = directoryProblem(st, false);
  if (!problem.empty())
    return fail(EPERM, error, "state directory " + canonical + " is not safe to use: " + problem);
  dir->fd = std::move(fd);
  dir->path = canonical;
  return 0;
}

int openStateSubdir(const StateDir& parent, const std::string& name, bool create, StateDir* dir,
                    std::string* error) {
  std::string path = parent.path + "/" + name;
  if (create && ::mkdirat(parent.fd.get(), name.c_str(), 0700) != 0 && errno != EEXIST)
    return fail(errno, error, "cannot create directory " + path + ": " + std::strerror(errno));
  UniqueFd fd(
      ::openat(parent.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    int saved = errno;
    if (saved == ENOENT) return fail(ENOENT, error, "directory " + path + " does not exist");
    if (saved == ELOOP || saved == ENOTDIR)
      return fail(EPERM, error, path + " is not safe to use: not a directory");
    return fail(saved, error, "cannot open directory " + path + ": " + std::strerror(saved));
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0)
    return fail(errno, error, "cannot check directory " + path + ": " + std::strerror(errno));
  std::string problem = directoryProblem(st, false);
  if (!problem.empty()) return fail(EPERM, error, path + " is not safe to use: " + problem);
  dir->fd = std::move(fd);
  dir->path = path;
  return 0;
}

int openStateFile(const StateDir& dir, const std::string& name, int flags, mode_t mode,
                  UniqueFd* fd, std::string* error) {
  std::string path = dir.path + "/" + name;
  UniqueFd opened(
      ::openat(dir.fd.get(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
  if (!opened) {
    int saved = errno;
    if (saved == ENOENT) return fail(ENOENT, error, "");
    if (saved == ELOOP)
      return fail(ELOOP, error, path + " is a symbolic link; refusing to follow it");
    // A FIFO opened for writing without a reader, or a socket.
    if (saved == ENXIO || saved == EOPNOTSUPP)
      return fail(EINVAL, error, path + " is not a regular file");
    return fail(saved, error, "cannot open " + path + ": " + std::strerror(saved));
  }
  struct stat st;
  if (::fstat(opened.get(), &st) != 0)
    return fail(errno, error, "cannot check " + path + ": " + std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return fail(EINVAL, error, path + " is not a regular file");
  if (!ownedByUs(st))
    return fail(EPERM, error, path + " is owned by uid " + std::to_string(st.st_uid));
  int status = ::fcntl(opened.get(), F_GETFL);
  if (status < 0 || ::fcntl(opened.get(), F_SETFL, status & ~O_NONBLOCK) != 0)
    return fail(errno, error, "cannot use " + path + ": " + std::strerror(errno));
  *fd = std::move(opened);
  return 0;
}

}  // namespace zorv::labelmgr

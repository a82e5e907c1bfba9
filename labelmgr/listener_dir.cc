#include "labelmgr/listener_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>

#include "common/dir_stream.h"
#include "common/unique_fd.h"
#include "log/logger.h"

namespace zorv::labelmgr {

const char kListenerEndpointSuffix[] = ".ipc";
const char kListenerLockSuffix[] = ".lock";

namespace {

// A lock file without an endpoint this old belongs to a listener that died
// while setting itself up.
constexpr time_t kOrphanLockAgeS = 60;

enum class Kind { kForeign, kEndpoint, kLock };

// "<digits>-<16 lower-case hex digits>" followed by one of our suffixes.
Kind kindOf(const std::string& entry, std::string* name) {
  size_t dot = entry.rfind('.');
  if (dot == std::string::npos) return Kind::kForeign;
  std::string suffix = entry.substr(dot);
  Kind kind = suffix == kListenerEndpointSuffix ? Kind::kEndpoint
              : suffix == kListenerLockSuffix   ? Kind::kLock
                                                : Kind::kForeign;
  size_t dash = entry.find('-');
  if (kind == Kind::kForeign || dash == 0 || dash == std::string::npos || dot != dash + 17)
    return Kind::kForeign;
  for (size_t i = 0; i < dash; ++i)
    if (entry[i] < '0' || entry[i] > '9') return Kind::kForeign;
  for (size_t i = dash + 1; i < dot; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(entry[i])) || std::isupper(entry[i]))
      return Kind::kForeign;
  *name = entry.substr(0, dot);
  return kind;
}

void removeEntry(int dirFd, const std::string& entry) {
  if (::unlinkat(dirFd, entry.c_str(), 0) != 0 && errno == EISDIR)
    ::unlinkat(dirFd, entry.c_str(), AT_REMOVEDIR);
}

}  // namespace

std::string newListenerName() {
  uint64_t nonce = 0;
  if (::getrandom(&nonce, sizeof nonce, 0) != static_cast<ssize_t>(sizeof nonce)) {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    nonce = static_cast<uint64_t>(t.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(t.tv_nsec);
  }
  char name[64];
  std::snprintf(name, sizeof name, "%d-%016" PRIx64, static_cast<int>(::getpid()), nonce);
  return name;
}

bool listenerAlive(const StateDir& dir, const std::string& name) {
  UniqueFd fd;
  std::string error;
  int rc = openStateFile(dir, name + kListenerLockSuffix, O_RDONLY, 0, &fd, &error);
  if (rc == -EMFILE || rc == -ENFILE || rc == -ENOMEM) return true;
  if (rc != 0) return false;
  // A shared probe: two publishers testing the same dead listener both see it
  // dead instead of one of them mistaking the other's probe for the listener.
  if (::flock(fd.get(), LOCK_SH | LOCK_NB) == 0) return false;
  return errno == EWOULDBLOCK;
}

void removeListener(const StateDir& dir, const std::string& name) {
  ::unlinkat(dir.fd.get(), (name + kListenerEndpointSuffix).c_str(), 0);
  ::unlinkat(dir.fd.get(), (name + kListenerLockSuffix).c_str(), 0);
}

std::vector<std::string> scanListeners(const StateDir& dir) {
  std::set<std::string> endpoints, locks;
  zorv::UniqueFd fd(::openat(dir.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    int error = errno;
    ZLOG_ERROR("cannot list label change listeners in %s: %s", dir.path.c_str(),
               std::strerror(error));
    return {};
  }
  zorv::DirStream listing(std::move(fd));
  zorv::DirStream::Entry entry;
  while (listing.next(&entry)) {
    std::string entryName = entry.name;
    std::string name;
    Kind kind = kindOf(entryName, &name);
    struct stat st;
    bool ours = kind != Kind::kForeign &&
                ::fstatat(dir.fd.get(), entryName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                (kind == Kind::kEndpoint ? S_ISSOCK(st.st_mode) : S_ISREG(st.st_mode));
    if (!ours) {
      ZLOG_WARN("removing %s/%s: not a label change listener's file", dir.path.c_str(),
                entryName.c_str());
      removeEntry(dir.fd.get(), entryName);
      continue;
    }
    if (kind == Kind::kEndpoint) {
      endpoints.insert(name);
    } else if (std::time(nullptr) - st.st_mtime >= kOrphanLockAgeS) {
      locks.insert(name);
    }
  }

  std::vector<std::string> live;
  for (const std::string& name : endpoints) {
    if (listenerAlive(dir, name)) {
      live.push_back(name);
      continue;
    }
    removeListener(dir, name);
    ZLOG_DEBUG("removed the endpoint of dead listener %s", name.c_str());
  }
  for (const std::string& name : locks) {
    if (endpoints.count(name) == 0 && !listenerAlive(dir, name))
      ::unlinkat(dir.fd.get(), (name + kListenerLockSuffix).c_str(), 0);
  }
  return live;
}

}  // namespace zorv::labelmgr

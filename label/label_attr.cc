#include "label/label_attr.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/unique_fd.h"

// The numbers are the same on every architecture that uses the unified
// system-call table; Debian 12's headers predate them.
#ifndef SYS_setxattrat
#define SYS_setxattrat 463
#endif
#ifndef SYS_getxattrat
#define SYS_getxattrat 464
#endif
#ifndef SYS_removexattrat
#define SYS_removexattrat 466
#endif

namespace zorv {
namespace {

struct XattrArgs {
  uint64_t value;
  uint32_t size;
  uint32_t flags;
};

enum class Mode : int { kUnknown, kNative, kFallback };
std::atomic<Mode> gMode{Mode::kUnknown};
thread_local bool tPrivateCwd = false;

// One probe per process. Sandboxes answer unknown system calls with EPERM as
// often as with ENOSYS, and reading an attribute of "/" never gives EPERM
// otherwise.
Mode mode() {
  Mode known = gMode.load(std::memory_order_relaxed);
  if (known != Mode::kUnknown) return known;
  unsigned char buffer[8];
  XattrArgs args{reinterpret_cast<uintptr_t>(buffer), sizeof buffer, 0};
  long rc = ::syscall(SYS_getxattrat, AT_FDCWD, "/", AT_SYMLINK_NOFOLLOW, kLabelAttribute, &args,
                      sizeof args);
  Mode found = rc < 0 && (errno == ENOSYS || errno == EPERM) ? Mode::kFallback : Mode::kNative;
  gMode.store(found, std::memory_order_relaxed);
  return found;
}

// A kernel that lost the calls after the probe (a filter installed later):
// from now on every thread uses the fallback.
bool nativeGone(long rc) {
  if (rc >= 0 || errno != ENOSYS) return false;
  gMode.store(Mode::kFallback, std::memory_order_relaxed);
  return true;
}

// The fallback's way to an entry: either this thread's own working directory
// moved into `dirfd` and the bare name, or a /proc/self/fd path of the entry
// pinned by an O_PATH descriptor. `follow` tells which attribute call to use:
// the /proc path must be followed (it is a link to the pinned entry), the
// bare name must not.
class FallbackTarget {
 public:
  FallbackTarget(int dirfd, const char* name) {
    if (tPrivateCwd) {
      // AT_FDCWD: the caller has moved this thread's directory already.
      if (dirfd != AT_FDCWD && ::fchdir(dirfd) != 0) {
        error_ = errno;
        return;
      }
      path_ = name;
      return;
    }
    pinned_.reset(::openat(dirfd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!pinned_) {
      error_ = errno;
      return;
    }
    std::snprintf(procPath_, sizeof procPath_, "/proc/self/fd/%d", pinned_.get());
    path_ = procPath_;
  }
  int error() const { return error_; }
  const char* path() const { return path_; }
  bool follow() const { return static_cast<bool>(pinned_); }

 private:
  UniqueFd pinned_;
  char procPath_[32] = {};
  const char* path_ = nullptr;
  int error_ = 0;
};

bool validName(const char* name) {
  return name != nullptr && *name != '\0' && !std::strchr(name, '/');
}

}  // namespace

ssize_t readLabelAt(int dirfd, const char* name, void* value, size_t size) {
  if (!validName(name)) return -EINVAL;
  if (mode() == Mode::kNative) {
    XattrArgs args{reinterpret_cast<uintptr_t>(value), static_cast<uint32_t>(size), 0};
    long rc = ::syscall(SYS_getxattrat, dirfd, name, AT_SYMLINK_NOFOLLOW, kLabelAttribute, &args,
                        sizeof args);
    if (!nativeGone(rc)) return rc < 0 ? -errno : rc;
  }
  FallbackTarget target(dirfd, name);
  if (target.error() != 0) return -target.error();
  return readLabelAtPath(target.path(), target.follow(), value, size);
}

int writeLabelAt(int dirfd, const char* name, const void* value, size_t size, int flags) {
  if (!validName(name)) return -EINVAL;
  if (mode() == Mode::kNative) {
    XattrArgs args{reinterpret_cast<uintptr_t>(value), static_cast<uint32_t>(size),
                   static_cast<uint32_t>(flags)};
    long rc = ::syscall(SYS_setxattrat, dirfd, name, AT_SYMLINK_NOFOLLOW, kLabelAttribute, &args,
                        sizeof args);
    if (!nativeGone(rc)) return rc < 0 ? -errno : 0;
  }
  FallbackTarget target(dirfd, name);
  if (target.error() != 0) return -target.error();
  return writeLabelAtPath(target.path(), target.follow(), value, size, flags);
}

int removeLabelAt(int dirfd, const char* name) {
  if (!validName(name)) return -EINVAL;
  if (mode() == Mode::kNative) {
    long rc = ::syscall(SYS_removexattrat, dirfd, name, AT_SYMLINK_NOFOLLOW, kLabelAttribute);
    if (!nativeGone(rc)) return rc < 0 ? -errno : 0;
  }
  FallbackTarget target(dirfd, name);
  if (target.error() != 0) return -target.error();
  return removeLabelAtPath(target.path(), target.follow());
}

ssize_t readLabelAtPath(const char* path, bool follow, void* value, size_t size) {
  ssize_t rc = follow ? ::getxattr(path, kLabelAttribute, value, size)
                      : ::lgetxattr(path, kLabelAttribute, value, size);
  return rc < 0 ? -errno : rc;
}

int writeLabelAtPath(const char* path, bool follow, const void* value, size_t size, int flags) {
  int rc = follow ? ::setxattr(path, kLabelAttribute, value, size, flags)
                  : ::lsetxattr(path, kLabelAttribute, value, size, flags);
  return rc < 0 ? -errno : 0;
}

int removeLabelAtPath(const char* path, bool follow) {
  int rc = follow ? ::removexattr(path, kLabelAttribute) : ::lremovexattr(path, kLabelAttribute);
  return rc < 0 ? -errno : 0;
}

bool usePrivateWorkingDirectory() {
  if (tPrivateCwd) return true;
  if (::unshare(CLONE_FS) != 0) return false;
  tPrivateCwd = true;
  return true;
}

bool usingXattrAt() { return mode() == Mode::kNative; }

}  // namespace zorv

#include "labelmgr/state_lock.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "labelmgr/state_db.h"
#include "labelmgr/state_files.h"

namespace zorv::labelmgr {
namespace {

constexpr char kLockFile[] = "labels.lock";
// Byte 0 is the turnstile every new holder passes through; byte 1 is the lock.
constexpr off_t kGate = 0;
constexpr off_t kLock = 1;

int setLock(int fd, short type, off_t at) {
  struct flock request {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_start = at;
  request.l_len = 1;
  while (::fcntl(fd, F_OFD_SETLKW, &request) != 0) {
    if (errno != EINTR) return -errno;
  }
  return 0;
}

}  // namespace

std::optional<StateLock> StateLock::acquire(Mode mode, std::string* error) {
  StateDir dir;
  if (openStateDir(stateDirectory(), true, &dir, error) != 0) return std::nullopt;
  UniqueFd fd;
  int rc = openStateFile(dir, kLockFile, O_RDWR | O_CREAT, 0600, &fd, error);
  bool readOnly = false;
  if (rc == -EROFS && mode == Mode::kShared) {
    // Nothing can write to the state here anyway; a read lock still keeps
    // out any writer that holds the file open from elsewhere.
    rc = openStateFile(dir, kLockFile, O_RDONLY, 0, &fd, error);
    readOnly = true;
  }
  if (rc != 0) return std::nullopt;
  std::string path = dir.path + "/" + kLockFile;
  // An exclusive waiter holds the gate, so shared holders that come after it
  // wait instead of overtaking it for ever.
  if (!readOnly && (rc = setLock(fd.get(), F_WRLCK, kGate)) != 0) {
    if (error != nullptr) *error = "cannot lock " + path + ": " + std::strerror(-rc);
    return std::nullopt;
  }
  rc = setLock(fd.get(), mode == Mode::kShared ? F_RDLCK : F_WRLCK, kLock);
  if (rc == 0 && !readOnly) rc = setLock(fd.get(), F_UNLCK, kGate);
  if (rc != 0) {
    if (error != nullptr) *error = "cannot lock " + path + ": " + std::strerror(-rc);
    return std::nullopt;
  }
  return StateLock(std::move(fd));
}

}  // namespace zorv::labelmgr

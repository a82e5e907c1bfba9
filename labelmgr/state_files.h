// Opening the state directory and the files in it without trusting them.
//
// The library runs as root, so its state directory must be one that nobody
// else can change: the directory and every directory above it are owned by
// root (or by the effective user) and writable by nobody else, except that an
// ancestor may be sticky (like /tmp), where others cannot rename what we own.
// Files in it are opened with O_NOFOLLOW and O_NONBLOCK (a FIFO put there can
// never block an open) and used only when they are regular files owned by
// root or the effective user.
#ifndef ZORV_LABELMGR_STATE_FILES_H_
#define ZORV_LABELMGR_STATE_FILES_H_

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

namespace zorv::labelmgr {

/// An opened, checked state directory (or a directory inside it).
struct StateDir {
  UniqueFd fd;       // O_RDONLY | O_DIRECTORY, for *at() calls
  std::string path;  // canonical
};

/// Opens `path` as a state directory. With `create`, a missing directory is
/// made with mode 0700 (missing parents 0755). 0 on success; -ENOENT (with
/// `*error` set) when it is missing and not to be created; -EPERM when it or
/// a directory above it is not safe ("owned by uid N", "writable by group or
/// others"); another -errno when it cannot be opened. `*error` is one line
/// naming the directory and the problem.
int openStateDir(const std::string& path, bool create, StateDir* dir, std::string* error);

/// Opens the subdirectory `name` of a checked directory, creating it (0700)
/// with `create`; checked as openStateDir checks the directory itself.
int openStateSubdir(const StateDir& parent, const std::string& name, bool create, StateDir* dir,
                    std::string* error);

/// Opens the file `name` in `dir` with `flags` (O_CREAT and O_EXCL allowed,
/// `mode` for a new file) plus O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, and
/// checks that it is a regular file owned by root or the effective user;
/// O_NONBLOCK is cleared again before it is handed over. 0 on success;
/// -ENOENT when it is missing; -ELOOP for a symbolic link; -EINVAL for
/// anything that is not a regular file (FIFO, socket, device,
/// directory); -EPERM for a foreign owner; else -errno. `*error` names the
/// file and the problem (empty for -ENOENT, which callers often expect).
int openStateFile(const StateDir& dir, const std::string& name, int flags, mode_t mode,
                  UniqueFd* fd, std::string* error);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_STATE_FILES_H_

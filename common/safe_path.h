// Internal to the framework's libraries (not installed): turning a path that a
// user named into a pinned entry, safely for a process running as root.
//
// The path is resolved one component at a time with openat(O_PATH |
// O_NOFOLLOW) from "/" (a relative path from the working directory's
// canonical path), so each step is taken from a descriptor, never from a
// string that could be re-resolved. A symbolic link met on the way is
// followed only where that cannot lead root somewhere the link's owner could
// not go:
//  - in a directory that is sticky and writable by others (/tmp), only a link
//    owned by root or by that directory's owner is followed;
//  - elsewhere a link in a directory owned by root is followed, and a link in
//    a directory owned by someone else only when what it finally leads to has
//    the same owner as that directory.
// Any other link ends the resolution with ENOLINK and a message naming it.
#ifndef ZORV_COMMON_SAFE_PATH_H_
#define ZORV_COMMON_SAFE_PATH_H_

#include <sys/stat.h>

#include <string>

#include "common/unique_fd.h"

namespace zorv {

/// Where a resolved path ends: the directory holding the entry, pinned, and
/// the entry's name in it ("." when the entry is "/" itself).
struct PinnedEntry {
  UniqueFd dir;       // O_PATH | O_DIRECTORY
  std::string name;   // one component, or "."
  std::string path;   // the entry's canonical absolute path
  struct stat st {};  // lstat() of the entry
};

enum class LinkRule {
  kSafe,   // follow links where it is safe (above)
  kNever,  // follow none: the path must already be canonical
};

/// Resolves `path`. With `followLast` false a link in the last component is
/// the entry itself (not followed). 0, or -errno with `*error` set to one
/// line naming the path and the cause: -ENOENT, -ENOTDIR, -EACCES as the
/// system answers; -ENOLINK for a link refused by `rule`; -ELOOP for too
/// many links.
int resolvePinned(const std::string& path, LinkRule rule, bool followLast, PinnedEntry* entry,
                  std::string* error);
/// As resolvePinned, with the directory `rootFd` taken for "/": ".." and
/// absolute link targets never lead out of it, a relative `path` starts
/// there too, and `entry->path` is the path as seen from inside it (a system
/// image's own view). A negative `rootFd` is the real "/".
int resolvePinnedIn(int rootFd, const std::string& path, LinkRule rule, bool followLast,
                    PinnedEntry* entry, std::string* error);

/// Opens the directory an entry names, for reading its entries and for *at()
/// calls: O_RDONLY | O_DIRECTORY | O_NOFOLLOW relative to the entry's
/// directory. -errno on failure (-ENOTDIR when it is no directory).
int openPinnedDirectory(const PinnedEntry& entry, UniqueFd* dir);

}  // namespace zorv

#endif  // ZORV_COMMON_SAFE_PATH_H_

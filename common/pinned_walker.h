// Internal to the framework's libraries (not installed): the one walk over a
// directory tree that stays inside it while others rename, replace and
// re-link its directories.
//
// Every directory is opened relative to its parent's descriptor with
// O_NOFOLLOW and entered only when it is still the directory (device and
// inode) its parent's listing led to. Entries are handed out with the
// descriptor of the directory they were found in, so whoever acts on one
// reaches it by that descriptor and its name, never by its path. The walk is
// depth first and iterative (no depth limit, paths longer than PATH_MAX are
// fine); at most `openFrames` directories of the current branch stay open,
// and one closed to spare descriptors is reopened on the way back through
// ".." of its child, else from the root, and used only when it is the same
// directory as before.
#ifndef ZORV_COMMON_PINNED_WALKER_H_
#define ZORV_COMMON_PINNED_WALKER_H_

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/entry_stat.h"
#include "common/unique_fd.h"

namespace zorv {

/// A directory's descriptor shared by the entries found in it.
using DirRef = std::shared_ptr<const UniqueFd>;

/// One entry a walk found.
struct WalkEntry {
  DirRef dir;                       // the directory it was found in, pinned
  std::string path;                 // its canonical path
  uint32_t nameOffset = 0;          // where its name starts in `path`
  unsigned char type = DT_UNKNOWN;  // as the directory listing gave it

  const char* name() const { return path.c_str() + nameOffset; }
};

/// Identifies a directory to enter.
struct DirId {
  dev_t dev;
  ino_t ino;
};

class PinnedWalkVisitor {
 public:
  enum class Problem {
    kOpen,      // a directory could not be opened (`error` says why)
    kReplaced,  // a directory was not what its listing led to: not entered
    kRead,      // reading a directory's entries failed partway
    kLost,      // a directory closed to spare descriptors could not be reopened
  };

  virtual ~PinnedWalkVisitor() = default;
  /// Called for each entry of a directory but "." and "..", in listing
  /// order, before any subdirectory of it is entered. Returns the identity
  /// of the directory to enter (as the visitor stat'ed it), or nothing. The
  /// entry may be moved from.
  virtual std::optional<DirId> visit(WalkEntry& entry) = 0;
  /// Part of the walk could not be done at `path`; the rest goes on.
  virtual void failed(Problem problem, const std::string& path, int error) = 0;
};

/// Walks the entries below the directory `rootFd` (opened O_RDONLY |
/// O_DIRECTORY, open until the walk ends) whose canonical path is `rootPath`
/// and identity `root`. The root itself is not visited.
void walkPinned(int rootFd, const std::string& rootPath, DirId root, PinnedWalkVisitor& visitor,
                size_t openFrames = 64);

/// `dir` + "/" + `name`, with one allocation.
std::string joinPath(const std::string& dir, const char* name);

/// Opens the directory `name` in `dirfd` with O_NOFOLLOW and checks that it
/// is `expected`. -errno on failure; -ESTALE when it is another one.
int openSubdirectory(int dirfd, const char* name, DirId expected, UniqueFd* out);

/// Opens the directory at the canonical `dirPath` inside the tree whose root
/// (canonical `rootPath`) is open as `rootFd` again, one component at a time
/// and never through a link, so that nothing renamed meanwhile can lead
/// outside the tree. Invalid (errno set) on failure.
UniqueFd reopenBelow(int rootFd, const std::string& rootPath, const std::string& dirPath);

}  // namespace zorv

#endif  // ZORV_COMMON_PINNED_WALKER_H_

// Admission of the paths and patterns that callers hand to the library, and
// what a pattern covers.
//
// A user-named path is resolved component by component from "/" and pinned
// (common/safe_path.h): a symbolic link is followed only where that is safe
// for root, so that a user who owns a directory cannot make root label, read
// or unlabel files elsewhere by planting a link. The fixed directory part of a
// pattern is resolved the same way when the pattern is admitted; afterwards
// patterns and stored rule targets hold canonical text and are walked without
// following any link.
//
// A pattern covers a path the way the shell's glob() would produce it: '*',
// '?' and brackets never cross a '/', and a name starting with '.' is matched
// only by a pattern that spells the dot. The same rule decides which files a
// pattern rule is applied to now and which files it governs on restore.
#ifndef ZORV_LABELMGR_PATH_GATE_H_
#define ZORV_LABELMGR_PATH_GATE_H_

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "common/safe_path.h"

namespace zorv::labelmgr {

/// Admits an exact path: it must pass isFilePathSafe with symbolic links
/// allowed, wildcards refused and the path existing, and resolve safely (a
/// link in the last component is followed under the same rule). True with
/// `entry` pinned on the file; false after exactly one error line.
bool admitExactPath(const char* path, PinnedEntry* entry);

/// Pins a stored rule's target, which was canonical when it was stored,
/// without following any link: a target that has become a link (or lies
/// under one) is not what the rule named. -ENOENT when it is gone or no
/// longer reachable without a link (quietly); other -errno logged.
int pinStoredTarget(const std::string& canonicalPath, PinnedEntry* entry);

/// Admits a wildcard pattern: absolute and free of dangerous characters
/// (isFilePathSafe with wildcards and missing paths allowed) and cheap enough
/// to expand (isPatternSafe). Answers the pattern with the directory in front
/// of its first wildcard made canonical (so that it covers canonical paths),
/// or "" after exactly one error line.
std::string admitPattern(const char* pattern);
std::string admitPattern(const std::string& pattern);

/// True when `pattern` covers `path` (see above). Thread-safe.
bool patternCovers(const std::string& pattern, const std::string& path);

/// The text of `pattern` in front of its first wildcard character; every
/// path the pattern covers begins with it.
std::string literalPrefix(const std::string& pattern);

/// One file a pattern covers, as the walk found it: valid during the call.
struct CoveredEntry {
  int dirfd;                // the directory it was found in, pinned
  const char* name;         // its name there
  const std::string& path;  // its canonical path
  const struct stat& st;    // its lstat()
};

/// Calls `each`, in name order per directory, for every entry that an
/// admitted `pattern` (or a stored pattern rule's target) covers now,
/// except symbolic links (a link's target is covered in its own right or
/// not at all). The walk opens each directory relative to its parent's
/// descriptor without following links. True when it saw everything; false
/// (logged) when some directory could not be opened or read, so that the
/// files found may be fewer than those covered.
bool forEachCovered(const std::string& pattern,
                    const std::function<void(const CoveredEntry&)>& each);

/// The canonical paths forEachCovered() finds, sorted; for look-ups that
/// only need the names.
std::vector<std::string> filesCoveredBy(const std::string& pattern);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PATH_GATE_H_

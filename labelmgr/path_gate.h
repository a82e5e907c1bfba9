// Admission of the paths and patterns that callers hand to the library, and
// what a pattern covers.
//
// A pattern covers a path the way the shell's glob() would produce it: '*',
// '?' and brackets never cross a '/', and a name starting with '.' is matched
// only by a pattern that spells the dot. The same rule decides which files a
// pattern rule is applied to now and which files it governs on restore.
#ifndef ZORV_LABELMGR_PATH_GATE_H_
#define ZORV_LABELMGR_PATH_GATE_H_

#include <string>
#include <vector>

namespace zorv::labelmgr {

/// Admits an exact path: it must pass isFilePathSafe with symbolic links
/// allowed, wildcards refused and the path existing. Answers its canonical
/// path, or "" after exactly one error line.
std::string admitExactPath(const char* path);
std::string admitExactPath(const std::string& path);

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

/// The canonical paths of the files that exist now and that `pattern` covers,
/// sorted and without duplicates. A glob match whose canonical path the
/// pattern does not cover (reached through a link) is left out.
std::vector<std::string> filesCoveredBy(const std::string& pattern);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PATH_GATE_H_

// The gate for file paths that come from outside, and quick file predicates.
#ifndef ZORV_COMMON_PATH_SAFETY_H_
#define ZORV_COMMON_PATH_SAFETY_H_

#include <string>

#include "log/export.h"

/// True when `path` is an acceptable absolute path. Each flag, when true,
/// switches one check off: symbolic links, unescaped wildcards, missing paths.
/// A rejection logs exactly one error line naming the first rule broken.
ZORV_EXPORT bool isFilePathSafe(const std::string& path, bool permitSymlink, bool permitWildcard,
                                bool permitMissing);

/// lstat() succeeds and the entry is a directory (a link to one is not).
ZORV_EXPORT bool pathIsDir(const char* path);
/// lstat() succeeds and the entry is a symbolic link.
ZORV_EXPORT bool pathIsLinkFile(const char* path);
/// 0 when the path exists (access F_OK), -1 otherwise: a status, not a bool.
ZORV_EXPORT int pathIsExists(const char* path);
/// True when the text holds a backslash.
ZORV_EXPORT bool containsEscapeChars(const std::string& text);

#endif  // ZORV_COMMON_PATH_SAFETY_H_

// Turning path strings into other paths: canonical forms, parents, tidying,
// containment and ordering.
#ifndef ZORV_COMMON_PATH_RESOLVE_H_
#define ZORV_COMMON_PATH_RESOLVE_H_

#include <filesystem>
#include <string>
#include <vector>

#include "log/export.h"

/// The canonical path (links, "." and ".." resolved), or "" on any failure:
/// a warning for an empty or missing path, an error when resolving fails.
ZORV_EXPORT std::string getRealPath(const std::string& path);
/// The path with its directory made canonical and its last component kept as
/// written (the real location of a link itself), or "".
ZORV_EXPORT std::string getLinkRealPath(const std::string& path);
/// The deepest existing directory in front of the first '*' or '?' (without a
/// trailing slash), or "" for a relative pattern that runs out; a directory
/// that cannot be examined is logged as an error and gives "".
ZORV_EXPORT std::string findFirstValidParentDir(const std::string& pattern);
/// Entries of the parent directory whose names fnmatch() the last component,
/// in directory order. Throws std::filesystem::filesystem_error when the
/// parent cannot be read.
ZORV_EXPORT std::vector<std::filesystem::path> expandPath(const std::filesystem::path& path);
/// Lexical: `child` lies strictly inside `parent` once both are made absolute.
ZORV_EXPORT bool isParentPath(const std::string& parent, const std::string& child);
/// Collapses runs of slashes, drops a trailing "/*" star and trailing slash.
ZORV_EXPORT std::string formatPath(const std::string& path);
/// Strict order of absolute path texts, bytes compared as signed chars.
ZORV_EXPORT bool comparePaths(const std::filesystem::path& a, const std::filesystem::path& b);
/// The file system holding `path` is mounted read-only; false (and an error
/// line) when statvfs fails.
ZORV_EXPORT bool isFilesystemReadOnly(const char* path);

#endif  // ZORV_COMMON_PATH_RESOLVE_H_

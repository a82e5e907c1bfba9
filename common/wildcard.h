// Shell-style wildcard patterns over paths.
#ifndef ZORV_COMMON_WILDCARD_H_
#define ZORV_COMMON_WILDCARD_H_

#include <filesystem>
#include <string>
#include <vector>

#include "log/export.h"

/// An unescaped '*', '?', '[' or ']' occurs.
ZORV_EXPORT bool containsWildcard(const std::string& text);
/// The pattern is short, shallow and free of "..", "/./" and "//" enough to be
/// expanded against the file system. Logs nothing.
ZORV_EXPORT bool isPatternSafe(const std::string& pattern);
/// Whole-text match where only '*' (any run, slashes included) and '?' (one
/// byte) are special. Linear, one remembered star; equality is tested before
/// the star, so a '*' in the text is matched literally first.
ZORV_EXPORT bool wildcardMatch(const std::string& pattern, const std::string& text);
/// The same matcher as wildcardMatch under a second name.
ZORV_EXPORT bool matchesPattern(const std::string& pattern, const std::string& text);
/// fnmatch(pattern, path, FNM_NOESCAPE) == 0.
ZORV_EXPORT bool matchesPattern1(const std::filesystem::path& path, const std::string& pattern);
/// glob(GLOB_TILDE | GLOB_NOSORT) of a safe pattern; empty (and an error line)
/// for an unsafe pattern or any glob failure, "No matches found." included.
ZORV_EXPORT std::vector<std::string> searchFilesByPattern(const std::string& pattern);
/// The directory part in front of the first '*' or '?'; a plain dirname when
/// there is none.
ZORV_EXPORT std::string getParentDirWithoutWildcard(const std::string& pattern);
/// An unanchored regular expression for the pattern.
ZORV_EXPORT std::string wildcardsToRegex(const std::string& pattern);

#endif  // ZORV_COMMON_WILDCARD_H_

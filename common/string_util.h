// Small text helpers. None throws; inputs are never modified.
#ifndef ZORV_COMMON_STRING_UTIL_H_
#define ZORV_COMMON_STRING_UTIL_H_

#include <string>
#include <unordered_map>
#include <vector>

#include "log/export.h"

/// Without leading and trailing space, TAB, LF and CR.
ZORV_EXPORT std::string trim(const std::string& text);
/// Clears `out` and fills it with the non-empty fields between delimiters.
ZORV_EXPORT void splitString(const std::string& text, const char& delimiter,
                             std::vector<std::string>& out);
/// Every non-overlapping occurrence of `oldStr` replaced, left to right.
ZORV_EXPORT std::string replaceString(const std::string& text, const std::string& oldStr,
                                      const std::string& newStr);
/// `oldStr` replaced only where the text begins with it.
ZORV_EXPORT std::string replaceBeginString(const std::string& text, const std::string& oldStr,
                                           const std::string& newStr);
/// Every non-overlapping occurrence of `sub` removed in one pass.
ZORV_EXPORT std::string removeSubString(const std::string& text, const std::string& sub);
/// `sub` removed only where the text begins with it.
ZORV_EXPORT std::string removeFirstSubString(const std::string& text, const std::string& sub);
/// Each "<name>" whose name the map holds replaced by its value; at most 100
/// replacements, inserted values never rescanned.
ZORV_EXPORT std::string replaceVariable(std::unordered_map<std::string, std::string>& variables,
                                        std::string text);
/// Every backslash removed.
ZORV_EXPORT std::string removeEscapeChars(const std::string& text);

#endif  // ZORV_COMMON_STRING_UTIL_H_

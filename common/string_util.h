// Small text helpers. None throws; inputs are never modified.
#ifndef ZORV_COMMON_STRING_UTIL_H_
#define ZORV_COMMON_STRING_UTIL_H_

#include <string>
#include <unordered_map>
#include <vector>

/// Without leading and trailing space, TAB, LF and CR.
std::string trim(const std::string& text);
/// Clears `out` and fills it with the non-empty fields between delimiters.
void splitString(const std::string& text, const char& delimiter, std::vector<std::string>& out);
/// Every non-overlapping occurrence of `oldStr` replaced, left to right.
std::string replaceString(const std::string& text, const std::string& oldStr,
                          const std::string& newStr);
/// `oldStr` replaced only where the text begins with it.
std::string replaceBeginString(const std::string& text, const std::string& oldStr,
                               const std::string& newStr);
/// Every non-overlapping occurrence of `sub` removed in one pass.
std::string removeSubString(const std::string& text, const std::string& sub);
/// `sub` removed only where the text begins with it.
std::string removeFirstSubString(const std::string& text, const std::string& sub);
/// Each "<name>" whose name the map holds replaced by its value; at most 100
/// replacements, inserted values never rescanned.
std::string replaceVariable(std::unordered_map<std::string, std::string>& variables,
                            std::string text);
/// Every backslash removed.
std::string removeEscapeChars(const std::string& text);

#endif  // ZORV_COMMON_STRING_UTIL_H_

#include "common/string_util.h"

#include <algorithm>

#include "log/logger.h"

namespace {

// Vertical tab and form feed are deliberately not whitespace here.
constexpr const char* kWhitespace = " \t\n\r";
// Guards replaceVariable against runaway input with endless placeholders.
constexpr int kMaxVariableReplacements = 100;

bool startsWith(const std::string& text, const std::string& prefix) {
  return prefix.size() <= text.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// False, with `*answer` set to what a replacement then returns, when `text`
// or `oldStr` is empty (logged).
bool canReplace(const std::string& text, const std::string& oldStr, std::string* answer) {
  if (text.empty()) {
    ZLOG_ERROR("text is empty");
    return false;
  }
  if (oldStr.empty()) {
    ZLOG_ERROR("oldStr is empty");
    *answer = text;
    return false;
  }
  return true;
}

// Every `oldStr` (not empty) in `text` replaced by `newStr`, left to right.
std::string replaceAll(const std::string& text, const std::string& oldStr,
                       const std::string& newStr) {
  std::string result;
  result.reserve(text.size());
  size_t position = 0;
  for (size_t found = text.find(oldStr); found != std::string::npos;
       found = text.find(oldStr, position)) {
    result.append(text, position, found - position);
    result += newStr;
    position = found + oldStr.size();
  }
  result.append(text, position, std::string::npos);
  return result;
}

}  // namespace

std::string trim(const std::string& text) {
  size_t first = text.find_first_not_of(kWhitespace);
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(kWhitespace);
  return text.substr(first, last - first + 1);
}

void splitString(const std::string& text, const char& delimiter, std::vector<std::string>& out) {
  out.clear();
  if (text.empty()) {
    ZLOG_DEBUG("input string is empty");
    return;
  }
  out.reserve(std::count(text.begin(), text.end(), delimiter) + 1);
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(delimiter, start);
    if (end == std::string::npos) end = text.size();
    // Empty fields are dropped so that leading, trailing and doubled
    // delimiters never produce empty entries.
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string replaceString(const std::string& text, const std::string& oldStr,
                          const std::string& newStr) {
  std::string result;
  if (!canReplace(text, oldStr, &result)) return result;
  return replaceAll(text, oldStr, newStr);
}

std::string replaceBeginString(const std::string& text, const std::string& oldStr,
                               const std::string& newStr) {
  std::string result;
  if (!canReplace(text, oldStr, &result)) return result;
  if (!startsWith(text, oldStr)) return text;
  return newStr + text.substr(oldStr.size());
}

std::string removeSubString(const std::string& text, const std::string& sub) {
  if (text.empty()) return "";
  if (sub.empty()) return text;
  return replaceAll(text, sub, "");
}

std::string removeFirstSubString(const std::string& text, const std::string& sub) {
  if (sub.empty()) return text;
  if (text.empty()) return "";
  if (!startsWith(text, sub)) return text;
  return text.substr(sub.size());
}

std::string replaceVariable(std::unordered_map<std::string, std::string>& variables,
                            std::string text) {
  size_t firstOpen = text.find('<');
  if (firstOpen == std::string::npos || text.find('>', firstOpen + 1) == std::string::npos)
    return text;

  std::string result = text;
  size_t position = 0;
  int replaced = 0;
  while (replaced < kMaxVariableReplacements) {
    size_t open = result.find('<', position);
    if (open == std::string::npos) break;
    size_t close = result.find('>', open + 1);
    if (close == std::string::npos) break;
    std::string name = result.substr(open + 1, close - open - 1);
    auto variable = name.empty() ? variables.end() : variables.find(name);
    if (variable == variables.end()) {
      position = open + 1;
      continue;
    }
    // Resume behind the inserted value so that a value holding a placeholder
    // stays literal and a self-referencing value cannot loop.
    result.replace(open, close - open + 1, variable->second);
    position = open + variable->second.size();
    ++replaced;
  }
  ZLOG_DEBUG("replaced: %s", result.c_str());
  return result;
}

std::string removeEscapeChars(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (char c : text)
    if (c != '\\') result.push_back(c);
  return result;
}

// Two readers of INI-like files, with deliberately different rules.
#ifndef ZORV_COMMON_CONFIG_H_
#define ZORV_COMMON_CONFIG_H_

#include <map>
#include <string>
#include <unordered_map>

#include "log/export.h"

/// Sections of trimmed key/value pairs; '#' comments, keys outside sections
/// ignored, the first of two equal keys wins.
ZORV_EXPORT std::unordered_map<std::string, std::unordered_map<std::string, std::string>>
parseConfig(const std::string& path);
/// One flat table of "section.key" (or bare key) to value; '#' and ';'
/// comments, every blank removed from values, the last of two equal keys wins.
ZORV_EXPORT std::map<std::string, std::string> readConfig(const std::string& path);

#endif  // ZORV_COMMON_CONFIG_H_

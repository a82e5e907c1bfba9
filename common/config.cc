#include "common/config.h"

#include <fstream>

#include "common/string_util.h"
#include "log/logger.h"

namespace {

constexpr const char* kBlanks = " \t";
constexpr size_t kExpectedSections = 8;

std::string stripLeadingBlanks(const std::string& text) {
  size_t first = text.find_first_not_of(kBlanks);
  return first == std::string::npos ? "" : text.substr(first);
}

}  // namespace

std::unordered_map<std::string, std::unordered_map<std::string, std::string>> parseConfig(
    const std::string& path) {
  std::unordered_map<std::string, std::unordered_map<std::string, std::string>> sections;
  std::ifstream in(path);
  if (in.fail()) {
    ZLOG_ERROR("Failed to open config: %s", path.c_str());
    return sections;
  }
  sections.reserve(kExpectedSections);

  std::string section;
  std::string line;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line.front() == '[' && line.back() == ']') {
      // The name is kept as written between the brackets, blanks included;
      // the section exists from its header on, even without keys.
      section = line.substr(1, line.size() - 2);
      sections[section];
      continue;
    }
    size_t equals = line.find('=');
    if (equals == std::string::npos || section.empty()) continue;
    // emplace keeps the first value of a key repeated within a section.
    sections[section].emplace(trim(line.substr(0, equals)), trim(line.substr(equals + 1)));
  }
  for (auto& entry : sections) entry.second.reserve(entry.second.size());
  return sections;
}

std::map<std::string, std::string> readConfig(const std::string& path) {
  std::map<std::string, std::string> values;
  std::ifstream in(path);
  if (!in.is_open()) {
    ZLOG_ERROR("can not open file %s", path.c_str());
    return values;
  }

  std::string section;
  std::string line;
  while (std::getline(in, line)) {
    line = stripLeadingBlanks(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      size_t close = line.find(']');
      if (close != std::string::npos) section = line.substr(1, close - 1);
      continue;
    }
    size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    // Trailing blanks of the key are kept: "port = 80" stores "port ".
    std::string key = line.substr(0, equals);
    std::string value;
    for (char c : stripLeadingBlanks(line.substr(equals + 1)))
      if (c != ' ' && c != '\r' && c != '\n') value.push_back(c);
    values[section.empty() ? key : section + "." + key] = value;
  }
  in.close();
  return values;
}

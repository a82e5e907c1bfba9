#include "audit/audit_run.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "labelmgr/zorvlabelmgr_audit.h"

namespace zorv::audit {

namespace {

using Json = nlohmann::json;

void warn(const std::string& text) { std::fprintf(stderr, "zorv-label-audit: %s\n", text.c_str()); }

// "none" (no label) is null in JSON.
Json valueJson(const std::string& value) { return value == "none" ? Json() : Json(value); }

Json fieldJson(const FieldReport& field) {
  return Json{{"field", field.field},
              {"current", valueJson(field.current)},
              {"expected", field.expected},
              {"source", field.source}};
}

void printLine(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

std::string dumpLine(const Json& json) {
  // Paths are bytes, not always UTF-8: replace what is not, rather than throw.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// One line per differing field: PATH, FIELD, CURRENT, EXPECTED, SOURCE,
// separated by tabs.
std::string tabbed(const std::string& path, const FieldReport& field) {
  return path + "\t" + field.field + "\t" + field.current + "\t" + field.expected + "\t" +
         field.source + "\n";
}

int runCheck(const CommandLine& line, AuditOptions& options) {
  options.excludes = line.excludes;
  options.useCache = !line.noCache;
  options.progress = true;
  std::map<std::pair<std::string, std::string>, uint64_t> summary;
  auto sink = [&](const PathReport& report) {
    for (const FieldReport& field : report.fields) {
      if (line.summary) {
        ++summary[{report.package, field.field}];
      } else if (line.json) {
        Json json = fieldJson(field);
        json["path"] = report.path;
        printLine(dumpLine(json));
      } else {
        printLine(tabbed(report.path, field));
      }
    }
  };
  CheckCounts counts;
  std::string error;
  if (checkTree(options, line.paths, sink, &counts, &error) != 0) {
    warn(error);
    return kTrouble;
  }
  for (const auto& [key, count] : summary) {
    const std::string& package = key.first.empty() ? "-" : key.first;
    if (line.json) {
      printLine(dumpLine(Json{{"package", key.first.empty() ? Json() : Json(key.first)},
                              {"field", key.second},
                              {"count", count}}));
    } else {
      printLine(package + "\t" + key.second + "\t" + std::to_string(count) + "\n");
    }
  }
  std::fflush(stdout);
  if (counts.failed != 0) {
    warn(std::to_string(counts.failed) + " entries could not be checked (see the log)");
    return kTrouble;
  }
  return counts.differing != 0 ? kDiffers : kSame;
}

std::vector<std::string> readNulSeparated() {
  std::string input((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  std::vector<std::string> paths;
  for (size_t begin = 0; begin < input.size();) {
    size_t end = input.find('\0', begin);
    if (end == std::string::npos) end = input.size();
    if (end > begin) paths.push_back(input.substr(begin, end - begin));
    begin = end + 1;
  }
  return paths;
}

int runExplain(const CommandLine& line, AuditOptions& options) {
  std::vector<std::string> paths = line.nulInput ? readNulSeparated() : line.paths;
  bool differs = false;
  auto sink = [&](const PathReport& report) {
    for (const FieldReport& field : report.fields) differs |= field.current != field.expected;
    if (line.json) {
      Json json{{"path", report.path}};
      if (!report.error.empty()) {
        json["error"] = report.error;
      } else {
        json["package"] = report.package.empty() ? Json() : Json(report.package);
        json["excluded_by"] = report.excludedBy.empty() ? Json() : Json(report.excludedBy);
        json["fields"] = Json::array();
        for (const FieldReport& field : report.fields) json["fields"].push_back(fieldJson(field));
      }
      printLine(dumpLine(json));
      return;
    }
    if (!report.error.empty()) {
      warn(report.error);
      return;
    }
    std::string text = report.path + "\n";
    if (!report.excludedBy.empty())
      text += "  excluded from whole-tree labelling by " + report.excludedBy + "\n";
    for (const FieldReport& field : report.fields) {
      std::string name = field.field + ":";
      name.resize(std::max<size_t>(name.size(), 14), ' ');
      text += "  " + name + "current " + field.current + "\n  " + std::string(14, ' ') +
              "restore " + field.expected + "  (" + field.source + ")\n";
    }
    printLine(text);
  };
  std::string error;
  int rc = explainPaths(options, paths, sink, &error);
  std::fflush(stdout);
  if (rc < 0) warn(error);
  if (rc != 0) return kTrouble;
  return differs ? kDiffers : kSame;
}

}  // namespace

int runCommand(const CommandLine& line) {
  AuditOptions options;
  options.root = line.root;
  options.warn = warn;
  return line.command == Command::kCheck ? runCheck(line, options) : runExplain(line, options);
}

}  // namespace zorv::audit

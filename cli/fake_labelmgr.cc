// A scriptable stand-in for libzorvlabelmgr, built for tests only. It carries
// the same soname, so a test points the tool at it with LD_LIBRARY_PATH.
//
// $ZORV_FAKE_LABELMGR_SCRIPT names a script: one rule per line, '#' starts a
// comment line:
//
//   OPERATION [@ARG] [ret=N] [id=P,F,H] [value=X] [rec=PATH|A,B,C]...
//             [entry=KIND|ITEM|P,F,H]... [null] [text=REST OF LINE]
//
//   @ARG    the rule applies only when the call's first text argument (path,
//           package name or topic) is ARG
//   ret     the int result; for the count operations it defaults to the number
//           of rec= records
//   id      the ZORV_ID of getFileOid/getFileSid (hexadecimal parts)
//   value   the number of getFileTid, getFileInheritFlag, getPkgId,
//           queryUserSetPkgId, getKernelModuleOid, getDeviceOid (hexadecimal)
//   rec     one UserSetRecord of a query/show operation (hexadecimal values)
//   entry   one identifier that policies_parse puts under KIND and ITEM
//   text    the string result (restore, init, getPkgNameById) or the message
//           of recvLabelChangeMsg; everything after "text=" up to the line end
//   null    getPkgNameById returns null, recvLabelChangeMsg leaves the message
//           null
//
// Several rules that fit one call are used in turn, one per call, the last of
// them for every further call: "recvLabelChangeMsg text=a", then "... text=b",
// then "recvLabelChangeMsg ret=1" gives two messages and a failed receive.
// Without a fitting rule a call returns 0 with zeroed outputs, except
// recvLabelChangeMsg, which fails (so a listener always ends), and
// getPkgNameById, which returns null.
//
// $ZORV_FAKE_LABELMGR_LOG names a file to which every call is appended as one
// line "operation(arguments)": texts in double quotes, int arguments in
// decimal, ids and numbers in hexadecimal with "0x".
#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli/zorvlabelmgr.h"

namespace {

struct PolicyEntry {
  std::string kind;
  std::string item;
  ZORV_ID id{};
};

struct Rule {
  std::string op;
  bool hasMatch = false;
  std::string match;
  bool hasRet = false;
  long ret = 0;
  ZORV_ID id{};
  uint64_t value = 0;
  std::vector<UserSetRecord> records;
  std::vector<PolicyEntry> entries;
  bool null = false;
  std::string text;
  int uses = 0;
};

uint64_t hex(const std::string& word) { return std::strtoull(word.c_str(), nullptr, 16); }

ZORV_ID parseId(const std::string& text) {
  ZORV_ID id{};
  std::stringstream in(text);
  std::string part;
  uint64_t* parts[] = {&id.pkg, &id.file, &id.path};
  for (uint64_t* p : parts) {
    if (!std::getline(in, part, ',')) break;
    *p = hex(part);
  }
  return id;
}

Rule parseRule(const std::string& line) {
  Rule rule;
  std::string rest = line;
  const size_t textAt = rest.find(" text=");
  if (textAt != std::string::npos) {
    rule.text = rest.substr(textAt + 6);
    rest.resize(textAt);
  }
  std::istringstream in(rest);
  in >> rule.op;
  std::string token;
  while (in >> token) {
    const size_t eq = token.find('=');
    const std::string key = token.substr(0, eq);
    const std::string val = eq == std::string::npos ? "" : token.substr(eq + 1);
    if (token[0] == '@') {
      rule.hasMatch = true;
      rule.match = token.substr(1);
    } else if (key == "ret") {
      rule.hasRet = true;
      rule.ret = std::strtol(val.c_str(), nullptr, 10);
    } else if (key == "id") {
      rule.id = parseId(val);
    } else if (key == "value") {
      rule.value = hex(val);
    } else if (key == "rec") {
      UserSetRecord record{};
      const size_t bar = val.find('|');
      std::snprintf(record.path, sizeof record.path, "%s", val.substr(0, bar).c_str());
      const ZORV_ID v = parseId(bar == std::string::npos ? "" : val.substr(bar + 1));
      record.value[0] = v.pkg;
      record.value[1] = v.file;
      record.value[2] = v.path;
      rule.records.push_back(record);
    } else if (key == "entry") {
      PolicyEntry entry;
      const size_t bar1 = val.find('|');
      const size_t bar2 = val.find('|', bar1 + 1);
      entry.kind = val.substr(0, bar1);
      entry.item = val.substr(bar1 + 1, bar2 - bar1 - 1);
      entry.id = parseId(val.substr(bar2 + 1));
      rule.entries.push_back(entry);
    } else if (token == "null") {
      rule.null = true;
    }
  }
  if (!rule.hasRet && !rule.records.empty()) rule.ret = static_cast<long>(rule.records.size());
  return rule;
}

std::vector<Rule>& rules() {
  static std::vector<Rule> loaded = [] {
    std::vector<Rule> result;
    const char* path = std::getenv("ZORV_FAKE_LABELMGR_SCRIPT");
    if (path == nullptr) return result;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      const size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line[start] == '#') continue;
      result.push_back(parseRule(line.substr(start)));
    }
    return result;
  }();
  return loaded;
}

// The rule for this call, or null. Fitting rules are used in turn, the last
// one repeatedly.
const Rule* pick(const char* op, const char* arg = nullptr) {
  Rule* last = nullptr;
  for (Rule& rule : rules()) {
    if (rule.op != op) continue;
    if (rule.hasMatch && (arg == nullptr || rule.match != arg)) continue;
    if (rule.uses == 0) {
      ++rule.uses;
      return &rule;
    }
    last = &rule;
  }
  if (last != nullptr) ++last->uses;
  return last;
}

// Written with one write() on an O_APPEND descriptor, so that a run that ends
// abnormally right after a call still leaves its line.
void record(const std::string& line) {
  const char* path = std::getenv("ZORV_FAKE_LABELMGR_LOG");
  if (path == nullptr) return;
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const std::string text = line + "\n";
  if (write(fd, text.data(), text.size()) < 0) {
    // Nothing to do: the test that reads the log will notice.
  }
  close(fd);
}

std::string quote(const std::string& text) { return "\"" + text + "\""; }

std::string hexText(uint64_t value) {
  char buffer[24];
  std::snprintf(buffer, sizeof buffer, "0x%" PRIx64, value);
  return buffer;
}

std::string idText(const ZORV_ID& id) {
  return "{" + hexText(id.pkg) + ", " + hexText(id.file) + ", " + hexText(id.path) + "}";
}

int result(const Rule* rule) { return rule != nullptr ? static_cast<int>(rule->ret) : 0; }

char* duplicate(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

int setId(const char* op, const char* path, int patternMatch, ZORV_ID id) {
  record(std::string(op) + "(" + quote(path) + ", " + std::to_string(patternMatch) + ", " +
         idText(id) + ")");
  return result(pick(op, path));
}

int setNumber(const char* op, const char* path, uint32_t value, int patternMatch) {
  record(std::string(op) + "(" + quote(path) + ", " + hexText(value) + ", " +
         std::to_string(patternMatch) + ")");
  return result(pick(op, path));
}

int getId(const char* op, const char* path, ZORV_ID* id) {
  record(std::string(op) + "(" + quote(path) + ")");
  const Rule* rule = pick(op, path);
  if (rule != nullptr) *id = rule->id;
  return result(rule);
}

template <typename T>
int getNumber(const char* op, const char* name, T* value) {
  record(std::string(op) + "(" + quote(name) + ")");
  const Rule* rule = pick(op, name);
  if (rule != nullptr) *value = static_cast<T>(rule->value);
  return result(rule);
}

int withPath(const char* op, const char* path, int patternMatch) {
  record(std::string(op) + "(" + quote(path) + ", " + std::to_string(patternMatch) + ")");
  return result(pick(op, path));
}

int withName(const char* op, const char* name) {
  record(std::string(op) + "(" + quote(name) + ")");
  return result(pick(op, name));
}

int noArgs(const char* op) {
  record(std::string(op) + "()");
  return result(pick(op));
}

int giveRecords(const Rule* rule, UserSetRecord** records) {
  if (rule == nullptr || rule->records.empty() || rule->ret <= 0) return result(rule);
  const size_t bytes = rule->records.size() * sizeof(UserSetRecord);
  *records = static_cast<UserSetRecord*>(std::malloc(bytes));
  std::memcpy(*records, rule->records.data(), bytes);
  return result(rule);
}

int query(const char* op, const char* path, UserSetRecord** records, int patternMatch) {
  record(std::string(op) + "(" + quote(path) + ", " + std::to_string(patternMatch) + ")");
  return giveRecords(pick(op, path), records);
}

int show(const char* op, UserSetRecord** records) {
  record(std::string(op) + "()");
  return giveRecords(pick(op), records);
}

std::string restore(const char* op, const std::string& path) {
  record(std::string(op) + "(" + quote(path) + ")");
  const Rule* rule = pick(op, path.c_str());
  return rule != nullptr ? rule->text : "";
}

}  // namespace

int setFileOid(const char* path, int patternMatch, ZORV_ID oid) {
  return setId(__func__, path, patternMatch, oid);
}
int setFileSid(const char* path, int patternMatch, ZORV_ID sid) {
  return setId(__func__, path, patternMatch, sid);
}
int setFileTid(const char* path, uint32_t tid, int patternMatch) {
  return setNumber(__func__, path, tid, patternMatch);
}
int setFileInheritFlag(const char* path, uint32_t inheritFlag, int patternMatch) {
  return setNumber(__func__, path, inheritFlag, patternMatch);
}

int getFileOid(const char* path, ZORV_ID* oid) { return getId(__func__, path, oid); }
int getFileSid(const char* path, ZORV_ID* sid) { return getId(__func__, path, sid); }
int getFileTid(const char* path, uint32_t* tid) { return getNumber(__func__, path, tid); }
int getFileInheritFlag(const char* path, uint32_t* inheritFlag) {
  return getNumber(__func__, path, inheritFlag);
}

int delFileOid(const char* path, int patternMatch) {
  return withPath(__func__, path, patternMatch);
}
int delFileSid(const char* path, int patternMatch) {
  return withPath(__func__, path, patternMatch);
}
int delFileTid(const char* path, int patternMatch) {
  return withPath(__func__, path, patternMatch);
}
int delFileInheritFlag(const char* path, int patternMatch) {
  return withPath(__func__, path, patternMatch);
}

int clearFileOid() { return noArgs(__func__); }
int clearFileSid() { return noArgs(__func__); }
int clearFileTid() { return noArgs(__func__); }
int clearFileInheritFlag() { return noArgs(__func__); }

int setPkgId(const char* pkgName, uint64_t pkgId) {
  record(std::string(__func__) + "(" + quote(pkgName) + ", " + hexText(pkgId) + ")");
  return result(pick(__func__, pkgName));
}
int getPkgId(const char* pkgName, uint64_t* pkgId) { return getNumber(__func__, pkgName, pkgId); }
char* getPkgNameById(uint64_t pkgId) {
  record(std::string(__func__) + "(" + hexText(pkgId) + ")");
  const Rule* rule = pick(__func__);
  if (rule == nullptr || rule->null) return nullptr;
  return duplicate(rule->text);
}
int delUserSetPkgId(const char* pkgName) { return withName(__func__, pkgName); }
int clearUserSetPkgId() { return noArgs(__func__); }

int queryUserSetFileOid(const char* path, UserSetRecord** records, int patternMatch) {
  return query(__func__, path, records, patternMatch);
}
int queryUserSetFileSid(const char* path, UserSetRecord** records, int patternMatch) {
  return query(__func__, path, records, patternMatch);
}
int queryUserSetFileTid(const char* path, UserSetRecord** records, int patternMatch) {
  return query(__func__, path, records, patternMatch);
}
int queryUserSetFileInheritFlag(const char* path, UserSetRecord** records, int patternMatch) {
  return query(__func__, path, records, patternMatch);
}
int showUserSetFileOid(UserSetRecord** records) { return show(__func__, records); }
int showUserSetFileSid(UserSetRecord** records) { return show(__func__, records); }
int showUserSetFileTid(UserSetRecord** records) { return show(__func__, records); }
int showUserSetFileInheritFlag(UserSetRecord** records) { return show(__func__, records); }
int queryUserSetPkgId(const char* pkgName, uint64_t* pkgId) {
  return getNumber(__func__, pkgName, pkgId);
}
int showUserSetPkgId(UserSetRecord** records) { return show(__func__, records); }

std::string restoreSingleFileLabel(const std::string& path) { return restore(__func__, path); }
std::string restoreSingleFileInitLabel(const std::string& path) { return restore(__func__, path); }

int addTagFullSystem(const std::string& root, const std::vector<std::string>& excludes) {
  record(std::string(__func__) + "(" + quote(root) + ", " + std::to_string(excludes.size()) +
         " excludes)");
  return result(pick(__func__, root.c_str()));
}

int getLabelSetStatus() { return noArgs(__func__); }

int getKernelModuleOid(const char* moduleName, uint64_t* oid) {
  return getNumber(__func__, moduleName, oid);
}
int getDeviceOid(const char* deviceName, uint64_t* oid) {
  return getNumber(__func__, deviceName, oid);
}

int policies_parse(const PolicyTable& policies, PolicyResult& parsed) {
  std::string line = std::string(__func__) + "(";
  for (const auto& [kind, items] : policies) {
    line += kind + ":";
    for (const std::string& item : items) line += " " + quote(item);
    line += "; ";
  }
  record(line + ")");
  const Rule* rule = pick(__func__);
  if (rule == nullptr) return 0;
  for (const PolicyEntry& entry : rule->entries) parsed[entry.kind][entry.item].push_back(entry.id);
  return result(rule);
}

void* createSubscriber() {
  static int handle;
  record(std::string(__func__) + "()");
  return &handle;
}

int subscribeLabelChangeMsg(void* subscriber, const std::string& topic) {
  (void)subscriber;
  record(std::string(__func__) + "(" + quote(topic) + ")");
  return result(pick(__func__, topic.c_str()));
}

int recvLabelChangeMsg(void* subscriber, char** message) {
  (void)subscriber;
  record(std::string(__func__) + "()");
  const Rule* rule = pick(__func__);
  if (rule == nullptr) return 1;
  if (rule->ret == 0 && !rule->null) *message = duplicate(rule->text);
  return result(rule);
}

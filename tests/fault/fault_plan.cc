#include "tests/fault/fault_plan.h"

#include <errno.h>
#include <sys/xattr.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zorv_fault {

using zorv_testing::RunResult;

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> list = {
      {"getxattr", true, EIO},
      {"lgetxattr", true, EIO},
      {"fgetxattr", true, EIO},
      {"setxattr", true, ENOSPC},
      {"lsetxattr", true, ENOSPC},
      {"fsetxattr", true, ENOSPC},
      {"removexattr", true, EIO},
      {"lremovexattr", true, EIO},
      {"fremovexattr", true, EIO},
      {"openat", false, EIO},
      {"read", false, EIO},
      {"pread64", false, EIO},
      {"write", false, ENOSPC},
      {"pwrite64", false, ENOSPC},
      {"fsync", false, EIO},
      {"fdatasync", false, EIO},
      {"rename", false, EIO},
      {"renameat", false, EIO},
      {"renameat2", false, EIO},
      {"getdents64", false, EIO},
      {"statx", false, EIO},
      {"newfstatat", false, EIO},
      {"ftruncate", false, EIO},
      // strace cannot name these: zorv-xattrat-fault fails them, in native mode.
      {"setxattrat", true, ENOSPC, 463},
      {"getxattrat", true, EIO, 464},
      {"listxattrat", true, EIO, 465},
      {"removexattrat", true, EIO, 466},
  };
  return list;
}

const Kind& kindNamed(const std::string& name) {
  for (const Kind& kind : kinds())
    if (name == kind.name) return kind;
  throw std::invalid_argument("no kind " + name);
}

namespace {

void mustRun(const FaultScene& scene, const std::vector<std::string>& args) {
  const RunResult r = scene.tool(args);
  if (r.status != 0) throw std::runtime_error("preparing run failed: " + args[0] + " " + r.out);
}

void labelTree(FaultScene& scene) { mustRun(scene, {"-a", "-s", scene.root()}); }

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> list = {
      {"label-tree", [](FaultScene&) {},
       [](const FaultScene& s) {
         return std::vector<std::string>{"-a", "-s", s.root()};
       },
       ""},
      {"pattern-set", labelTree,
       [](const FaultScene& s) {
         return std::vector<std::string>{"-P", "-a", "-t", s.root() + "/*", "5"};
       },
       "set file tid success."},
      {"exact-set", labelTree,
       [](const FaultScene& s) {
         return std::vector<std::string>{"-a", "-o", target(s), "1", "2", "3"};
       },
       "set file oid success."},
      {"clear",
       [](FaultScene& s) {
         labelTree(s);
         mustRun(s, {"-P", "-a", "-t", s.root() + "/etc/*", "5"});
         mustRun(s, {"-a", "-t", target(s), "6"});
       },
       [](const FaultScene&) {
         return std::vector<std::string>{"-d", "-c", "tid"};
       },
       "clear file tid success."},
      {"restore",
       [](FaultScene& s) {
         labelTree(s);
         mustRun(s, {"-a", "-o", target(s), "1", "2", "3"});
         // A label that is not the file's: restoring puts the right one back.
         unsigned char other[64] = {1, 2, 3};
         lsetxattr(target(s).c_str(), "security.zorv", other, 25, 0);
       },
       [](const FaultScene& s) {
         return std::vector<std::string>{"-r", "-l", target(s)};
       },
       "restore label success"},
      {"init",
       [](FaultScene& s) {
         labelTree(s);
         mustRun(s, {"-a", "-o", target(s), "1", "2", "3"});
       },
       [](const FaultScene& s) {
         return std::vector<std::string>{"-i", "-l", target(s)};
       },
       "init label success"},
      {"delete",
       [](FaultScene& s) {
         labelTree(s);
         mustRun(s, {"-a", "-o", target(s), "1", "2", "3"});
       },
       [](const FaultScene& s) {
         return std::vector<std::string>{"-d", "-o", target(s)};
       },
       "delete file oid success."},
      {"pkgid-set", labelTree,
       [](const FaultScene&) {
         return std::vector<std::string>{"-a", "-p", "alpha", "77"};
       },
       "set pkgid success."},
      {"publisher", labelTree,
       [](const FaultScene& s) {
         return std::vector<std::string>{"-P", "-a", "-t", s.root() + "/var/*", "7"};
       },
       "set file tid success.", true},
  };
  return list;
}

const Command& commandNamed(const std::string& name) {
  for (const Command& command : commands())
    if (command.name == name) return command;
  throw std::invalid_argument("no command " + name);
}

std::string target(const FaultScene& scene) { return scene.root() + "/bin/tool1"; }

KnownList& KnownList::get() {
  static KnownList list(ZORV_KNOWN_UNREPAIRED);
  return list;
}

bool KnownList::covers(const CaseKey& key) {
  for (Entry& e : entries_)
    if (e.command == key.command && e.mode == key.mode && e.kind == key.kind &&
        e.fault == key.fault && (e.n == "*" || e.n == std::to_string(key.n))) {
      e.used = true;
      return true;
    }
  return false;
}

std::vector<std::string> KnownList::unused(const std::string& command,
                                           const std::string& mode) const {
  std::vector<std::string> lines;
  for (const Entry& e : entries_)
    if (!e.used && e.command == command && e.mode == mode) lines.push_back(e.line);
  return lines;
}

KnownList::KnownList(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    Entry e;
    if (words >> e.command >> e.mode >> e.kind >> e.fault >> e.n) {
      e.line = e.command + " " + e.mode + " " + e.kind + " " + e.fault + " " + e.n;
      entries_.push_back(e);
    }
  }
}

Table& wholeRun() {
  static Table table;
  return table;
}

void printTable(const Table& table, const std::string& title, const std::string& file,
                const std::string& notes) {
  char line[160];
  std::string text = "== " + title + "\n";
  std::snprintf(line, sizeof line, "%-36s %5s %11s %13s %11s %6s\n", "command / mode / kind",
                "runs", "unrepaired", "false-success", "wrong-label", "known");
  text += line;
  Counts total;
  auto row = [&](const std::string& name, const Counts& c) {
    std::snprintf(line, sizeof line, "%-36s %5d %11d %13d %11d %6d\n", name.c_str(), c.runs,
                  c.unrepaired, c.falseSuccess, c.wrongLabel, c.known);
    text += line;
  };
  for (const auto& [name, c] : table) {
    row(name, c);
    total.add(c);
  }
  row("total", total);
  text += notes;
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
  if (!file.empty()) {
    std::filesystem::create_directories(ZORV_FAULT_TABLES);
    std::ofstream(std::string(ZORV_FAULT_TABLES) + "/" + file + ".txt") << text;
  }
}

}  // namespace zorv_fault

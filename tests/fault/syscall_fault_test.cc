// Every fault is seen and repaired. For each command, the Nth system call of
// one kind fails (EIO; ENOSPC for writes) or the process is killed at it;
// then the same command runs again with no fault, and every label of the tree
// and every user-set list must equal what one run with no fault gave. Three
// things are counted per command and kind:
//   not repaired   the clean rerun did not reach the faultless result;
//   false success  the faulted run claimed success (its success line, or for
//                  whole-tree labelling a complete label-set status) although
//                  its work was not done;
//   wrong label    the faulted run left an entry with a label that is neither
//                  the one it had nor the one it should get.
// strace injects the faults; it counts the Nth call per thread, so the library
// runs with one worker. It cannot name the *xattrat calls: zorv-xattrat-fault
// fails those, and the attribute kinds run a second time under a filter that
// refuses them (the library then uses its fallback, whose calls strace can
// fail).
//
// Cases listed in known_unrepaired.txt fail without failing the test while
// their fixes are in progress; a listed case that passes is reported so the
// line can go. ZORV_FAULT_SAMPLE sets how many points of a kind are tried
// (default 20); ZORV_NO_XATTRAT names the filter program when it is not built
// here.
#include <errno.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/fault/fault_scene.h"

namespace {

using zorv_testing::FaultScene;
using zorv_testing::runProgram;
using zorv_testing::RunResult;
using zorv_testing::SceneState;

struct Kind {
  const char* name;
  bool attribute;
  int error;       // what the injected failure answers
  int number = 0;  // for the calls strace cannot name: failed by zorv-xattrat-fault
};
const Kind kKinds[] = {
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

const Kind& kindNamed(const std::string& name) {
  for (const Kind& kind : kKinds)
    if (name == kind.name) return kind;
  throw std::invalid_argument("no kind " + name);
}

std::string strace() {
  const char* path = getenv("ZORV_STRACE");
  return path != nullptr ? path : "/usr/bin/strace";
}

// The program that runs another with the *xattrat calls refused, or "".
std::string noXattrAt() {
  const char* path = getenv("ZORV_NO_XATTRAT");
  if (path != nullptr) return path;
#ifdef ZORV_NO_XATTRAT_PATH
  return ZORV_NO_XATTRAT_PATH;
#else
  return "";
#endif
}

// The program that fails the Nth *xattrat call; "" when it is not built.
// The program that fails the Nth *xattrat call; "" when it is not built or
// this kernel cannot hand system calls to it (before 5.0).
std::string xattrAtFault() {
#ifdef ZORV_XATTRAT_FAULT_PATH
  static const bool works =
      runProgram({ZORV_XATTRAT_FAULT_PATH, "count", "/dev/null", "/bin/true"}).status == 0;
  if (!works)
    std::printf("[fault] zorv-xattrat-fault cannot work here: *xattrat calls not failed\n");
  return works ? ZORV_XATTRAT_FAULT_PATH : "";
#else
  return "";
#endif
}

enum class Mode { kNative, kNoXattrAt };
const char* modeName(Mode mode) { return mode == Mode::kNative ? "native" : "no-xattrat"; }

struct Command {
  std::string name;
  // Sets the scene up with runs that meet no fault (and may change labels).
  std::function<void(FaultScene&)> prepare;
  std::function<std::vector<std::string>(const FaultScene&)> args;
  // The output that claims the work was done; empty for whole-tree labelling,
  // whose claim is the label-set status.
  std::string claim;
  bool listener = false;
};

void mustRun(const FaultScene& scene, const std::vector<std::string>& args) {
  const RunResult r = scene.tool(args);
  if (r.status != 0) throw std::runtime_error("preparing run failed: " + args[0] + " " + r.out);
}

// The file the single-file commands work on: a tool of package alpha.
std::string target(const FaultScene& scene) { return scene.root() + "/bin/tool1"; }

void labelTree(FaultScene& scene) { mustRun(scene, {"-a", "-s", scene.root()}); }

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

// ---- the known-failing list

struct CaseKey {
  std::string command, mode, kind, fault;
  int n;
  std::string text() const {
    return command + " " + mode + " " + kind + " " + fault + " " + std::to_string(n);
  }
};

class KnownList {
 public:
  static KnownList& get() {
    static KnownList list(ZORV_KNOWN_UNREPAIRED);
    return list;
  }
  bool covers(const CaseKey& key) {
    for (Entry& e : entries_)
      if (e.command == key.command && e.mode == key.mode && e.kind == key.kind &&
          e.fault == key.fault && (e.n == "*" || e.n == std::to_string(key.n))) {
        e.used = true;
        return true;
      }
    return false;
  }
  // Lines for `command` in `mode` that matched no failing case.
  std::vector<std::string> unused(const std::string& command, const std::string& mode) const {
    std::vector<std::string> lines;
    for (const Entry& e : entries_)
      if (!e.used && e.command == command && e.mode == mode) lines.push_back(e.line);
    return lines;
  }

 private:
  struct Entry {
    std::string command, mode, kind, fault, n, line;
    bool used = false;
  };
  explicit KnownList(const std::string& path) {
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
  std::vector<Entry> entries_;
};

// ---- counts and the table

struct Counts {
  int runs = 0, unrepaired = 0, falseSuccess = 0, wrongLabel = 0, known = 0;
  void add(const Counts& o) {
    runs += o.runs;
    unrepaired += o.unrepaired;
    falseSuccess += o.falseSuccess;
    wrongLabel += o.wrongLabel;
    known += o.known;
  }
};
using Table = std::map<std::string, Counts>;  // "command mode kind" -> counts

Table& wholeRun() {
  static Table table;
  return table;
}

// Prints `table`, then `notes`, and, when `file` is given, keeps the same text in the
// build's fault-tables directory, where scripts/check.sh finds every table of
// the run to print after the tests.
void printTable(const Table& table, const std::string& title, const std::string& file = "",
                const std::string& notes = "") {
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

class SummaryPrinter : public testing::Environment {
 public:
  void TearDown() override {
    if (wholeRun().size() > 0) printTable(wholeRun(), "fault injection, every command run here");
  }
};
const auto* const kSummary = testing::AddGlobalTestEnvironment(new SummaryPrinter);

// ---- strace logs

// The calls of a trace log ("PID name(...) = ..." lines), per kind and thread,
// each thread's calls in order.
using CallLog = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

// A call on "/proc/self/fd/N" gets the path of the descriptor N that the log
// last saw returned (with -y, "= N</path>") appended as "<path>".
CallLog readCallLog(const std::string& path) {
  CallLog log;
  static const std::regex call(R"(^(\d+) +([a-z0-9_]+)\()");
  static const std::regex opened(R"(= (\d+)<([^>]*)>$)");
  static const std::regex procFd(R"re("/proc/self/fd/(\d+)")re");
  std::map<std::string, std::string> descriptors;
  std::ifstream in(path);
  std::string line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_search(line, m, opened)) descriptors[m[1]] = m[2];
    if (std::regex_search(line, m, procFd)) line += " <" + descriptors[m[1]] + ">";
    if (std::regex_search(line, m, call)) log[m[2]][m[1]].push_back(line);
  }
  return log;
}

int mostPerThread(const CallLog& log, const std::string& kind) {
  auto it = log.find(kind);
  if (it == log.end()) return 0;
  size_t most = 0;
  for (const auto& [thread, calls] : it->second) most = std::max(most, calls.size());
  return static_cast<int>(most);
}

// All of 1..count when there are at most `sample`, else `sample` points spread
// evenly from the first call to the last.
std::vector<int> points(int count, int sample) {
  std::vector<int> ns;
  if (count <= sample) {
    for (int n = 1; n <= count; ++n) ns.push_back(n);
    return ns;
  }
  for (int i = 0; i < sample; ++i)
    ns.push_back(1 + static_cast<int>(int64_t(i) * (count - 1) / (sample - 1)));
  return ns;
}

int sampleSize() {
  const char* text = getenv("ZORV_FAULT_SAMPLE");
  return text != nullptr ? std::max(2, atoi(text)) : 20;
}

// ---- one command, its reference and its faulted runs

enum class Fault { kError, kKill };

class Harness {
 public:
  explicit Harness(const Command& command) : command_(command) {
    command.prepare(scene_);
    scene_.keepAsStart();
    if (command.listener) scene_.startListener();
    scene_.reset();
    start_ = scene_.labels();
    const RunResult clean = scene_.tool(args());
    reference_ = scene_.state();
    cleanOut_ = clean.out;
  }

  const FaultScene& scene() const { return scene_; }
  std::vector<std::string> args() const { return command_.args(scene_); }

  // The command under strace with no fault, tracing every kind into a log
  // (with descriptors' paths); answers the log, or why there is none.
  bool trace(Mode mode, CallLog* log, std::string* why) {
    scene_.reset();
    std::string kinds;
    for (const Kind& kind : kKinds)
      if (kind.number == 0) kinds += std::string(kinds.empty() ? "" : ",") + kind.name;
    const std::string logPath = scene_.stateDir() + "/../trace.log";
    const std::string countPath = scene_.stateDir() + "/../xattrat.count";
    std::remove(countPath.c_str());
    std::vector<std::string> argv = prefix(mode);
    if (mode == Mode::kNative && !xattrAtFault().empty())
      argv.insert(argv.end(), {xattrAtFault(), "count", countPath});
    argv.insert(argv.end(), {strace(), "-f", "-qq", "-y", "-o", logPath, "-e", "trace=" + kinds});
    const std::vector<std::string> tool = scene_.toolArgv(args());
    argv.insert(argv.end(), tool.begin(), tool.end());
    const RunResult r = runProgram(argv);
    const SceneState after = scene_.state();
    if (after != reference_) {
      *why = "the traced run with no fault differs: " +
             zorv_testing::firstDifference(after, reference_);
      return false;
    }
    *log = readCallLog(logPath);
    std::ifstream counts(countPath);
    long number = 0, thread = 0, calls = 0;
    while (counts >> number >> thread >> calls)
      for (const Kind& kind : kKinds)
        if (kind.number == number)
          (*log)[kind.name][std::to_string(thread)].resize(static_cast<size_t>(calls));
    if (log->empty()) {
      *why = "strace recorded no call (status " + std::to_string(r.status) + ")";
      return false;
    }
    return true;
  }

  struct Outcome {
    bool repaired = true, falseSuccess = false, wrongLabel = false;
    std::string detail;
    bool ok() const { return repaired && !falseSuccess && !wrongLabel; }
  };

  Outcome run(Mode mode, const Kind& kind, Fault fault, int n) {
    scene_.reset();
    std::vector<std::string> argv = prefix(mode);
    if (kind.number != 0) {
      argv.insert(argv.end(), {xattrAtFault(), fault == Fault::kKill ? "kill" : "fail",
                               std::to_string(kind.number), std::to_string(n)});
      if (fault == Fault::kError) argv.push_back(std::to_string(kind.error));
    } else {
      const std::string what =
          fault == Fault::kKill ? "signal=KILL"
                                : std::string("error=") + (kind.error == ENOSPC ? "ENOSPC" : "EIO");
      argv.insert(argv.end(),
                  {strace(), "-f", "-qq", "--seccomp-bpf", "-o", "/dev/null", "-e",
                   std::string("trace=") + kind.name, "-e",
                   std::string("inject=") + kind.name + ":" + what + ":when=" + std::to_string(n)});
    }
    const std::vector<std::string> tool = scene_.toolArgv(args());
    argv.insert(argv.end(), tool.begin(), tool.end());
    const RunResult faulted = runProgram(argv);

    Outcome o;
    bool claimed = false;
    if (faulted.signal == 0 && faulted.status >= 0) {
      if (command_.claim.empty()) {
        const std::string out = scene_.tool({"-g", "-b"}).out;
        const size_t at = out.rfind("LabelSetStatus: ");
        claimed = at != std::string::npos && out.compare(at, 18, "LabelSetStatus: 1\n") == 0;
      } else {
        claimed = faulted.out.find(command_.claim) != std::string::npos;
      }
    }
    const auto after = scene_.labels();
    for (const auto& [path, label] : after) {
      auto was = start_.find(path);
      auto want = reference_.labels.find(path);
      if ((was == start_.end() || label != was->second) &&
          (want == reference_.labels.end() || label != want->second)) {
        o.wrongLabel = true;
        o.detail += "wrong label " + path + ": " + label + "; ";
        break;
      }
    }
    if (claimed) {
      const SceneState state = scene_.state();
      if (state != reference_) {
        o.falseSuccess = true;
        o.detail +=
            "claimed success, left " + zorv_testing::firstDifference(state, reference_) + "; ";
      }
    }
    scene_.tool(args());
    const SceneState rerun = scene_.state();
    if (rerun != reference_) {
      o.repaired = false;
      o.detail += "rerun left " + zorv_testing::firstDifference(rerun, reference_);
    }
    return o;
  }

  // Runs one case, counts it into `row` and reports it unless it is known.
  void check(Mode mode, const Kind& kind, Fault fault, int n, Counts* row) {
    const Outcome o = run(mode, kind, fault, n);
    ++row->runs;
    row->unrepaired += !o.repaired;
    row->falseSuccess += o.falseSuccess;
    row->wrongLabel += o.wrongLabel;
    if (o.ok()) return;
    const CaseKey key{command_.name, modeName(mode), kind.name,
                      fault == Fault::kKill ? "KILL" : "ERR", n};
    if (KnownList::get().covers(key)) {
      ++row->known;
      return;
    }
    ADD_FAILURE() << key.text() << ": " << o.detail;
  }

 private:
  std::vector<std::string> prefix(Mode mode) const {
    if (mode == Mode::kNative) return {};
    return {noXattrAt()};
  }

  const Command& command_;
  FaultScene scene_;
  std::map<std::string, std::string> start_;
  SceneState reference_;
  std::string cleanOut_;
};

bool haveStrace(std::string* why) {
  if (access(strace().c_str(), X_OK) == 0) return true;
  *why = strace() + " is not there (scripts/install-deps.sh installs it)";
  return false;
}

class EveryFault : public testing::TestWithParam<std::string> {};

TEST_P(EveryFault, IsSeenAndRepairedByARerun) {
  std::string why;
  if (!haveStrace(&why)) GTEST_SKIP() << why;
  const Command& command = commandNamed(GetParam());
  Harness harness(command);
  const int sample = sampleSize();
  Table table;
  std::string stale;  // lines of the known list that matched no failure
  for (Mode mode : {Mode::kNative, Mode::kNoXattrAt}) {
    if (mode == Mode::kNoXattrAt &&
        (noXattrAt().empty() || access(noXattrAt().c_str(), X_OK) != 0)) {
      std::printf(
          "[fault] %s: mode no-xattrat skipped: no program refusing the *xattrat calls "
          "(build zorv-no-xattrat or set ZORV_NO_XATTRAT)\n",
          command.name.c_str());
      continue;
    }
    CallLog log;
    if (!harness.trace(mode, &log, &why)) {
      ADD_FAILURE() << command.name << " " << modeName(mode) << ": " << why;
      continue;
    }
    for (const Kind& kind : kKinds) {
      if (mode == Mode::kNoXattrAt && !kind.attribute) continue;
      const int count = mostPerThread(log, kind.name);
      if (count == 0) continue;
      Counts& row = table[command.name + " " + modeName(mode) + " " + kind.name];
      for (int n : points(count, sample))
        for (Fault fault : {Fault::kError, Fault::kKill}) harness.check(mode, kind, fault, n, &row);
    }
    for (const std::string& line : KnownList::get().unused(command.name, modeName(mode)))
      stale += "known_unrepaired.txt: \"" + line + "\" no longer fails; remove it\n";
  }
  printTable(table, command.name, command.name, stale);
  for (const auto& [row, counts] : table) wholeRun()[row].add(counts);
}

INSTANTIATE_TEST_SUITE_P(Commands, EveryFault,
                         testing::Values("label-tree", "pattern-set", "exact-set", "clear",
                                         "restore", "init", "delete", "pkgid-set", "publisher"),
                         [](const testing::TestParamInfo<std::string>& info) {
                           std::string name = info.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// ---- the four faults first found by hand, each aimed at one file

// Fails, with an error and with a kill, the call of each of `kinds` that first
// touches `path` (by name, through a descriptor, or by its base name alone,
// which is unique in the scene), in each mode where strace sees such a call. Answers how many calls
// were aimed at.
int aimAt(const std::string& commandName, const std::vector<std::string>& kinds,
          const std::function<std::string(const FaultScene&)>& pathOf) {
  Harness harness(commandNamed(commandName));
  const std::string path = pathOf(harness.scene());
  const std::string dir = path.substr(0, path.rfind('/'));
  const std::string name = path.substr(path.rfind('/') + 1);
  auto touches = [&](const std::string& line) {
    return line.find("\"" + path + "\"") != std::string::npos ||
           line.find("<" + path + ">") != std::string::npos ||
           line.find("<" + dir + ">, \"" + name + "\"") != std::string::npos ||
           // a bare name, from a working directory moved into its directory
           line.find("(\"" + name + "\",") != std::string::npos;
  };
  int aimed = 0;
  Table table;
  for (Mode mode : {Mode::kNative, Mode::kNoXattrAt}) {
    if (mode == Mode::kNoXattrAt && (noXattrAt().empty() || access(noXattrAt().c_str(), X_OK) != 0))
      continue;
    CallLog log;
    std::string why;
    if (!harness.trace(mode, &log, &why)) {
      ADD_FAILURE() << commandName << " " << modeName(mode) << ": " << why;
      continue;
    }
    for (const std::string& kindName : kinds) {
      if (mode == Mode::kNoXattrAt && !kindNamed(kindName).attribute) continue;
      for (const auto& [thread, calls] : log[kindName]) {
        auto it = std::find_if(calls.begin(), calls.end(), touches);
        if (it == calls.end()) continue;
        const int n = static_cast<int>(it - calls.begin()) + 1;
        Counts& row = table[commandName + " " + modeName(mode) + " " + kindName];
        for (Fault fault : {Fault::kError, Fault::kKill})
          harness.check(mode, kindNamed(kindName), fault, n, &row);
        ++aimed;
        break;
      }
    }
  }
  printTable(
      table, "aimed at " + path.substr(harness.scene().root().size() - 4),
      std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" + name);
  return aimed;
}

class NamedFault : public testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!haveStrace(&why)) GTEST_SKIP() << why;
  }
};

// "Not owned by any package" and "could not read the package database" are
// different answers: no package-owned file may get package id 0, nor be
// cached as done.
TEST_F(NamedFault, TreeLabellingWithThePackageDatabaseUnreadable) {
  for (const char* file : {"status", "info/alpha.list"}) {
    EXPECT_GT(aimAt("label-tree", {"openat", "read"},
                    [&](const FaultScene& s) { return s.dpkgDir() + "/" + file; }),
              0)
        << file << " was never opened or read";
  }
}

// A file whose stat fails keeps its label: no label of zeros with only the new
// TID.
TEST_F(NamedFault, PatternSetWithOneStatFailing) {
  EXPECT_GT(aimAt("pattern-set", {"newfstatat", "statx"},
                  [](const FaultScene& s) { return s.root() + "/top1"; }),
            0);
}

// A clear whose attribute write fails on one file leaves a state the rerun
// completes.
TEST_F(NamedFault, ClearWithOneAttributeWriteFailing) {
  EXPECT_GT(
      aimAt("clear",
            {"setxattr", "lsetxattr", "fsetxattr", "removexattr", "lremovexattr", "fremovexattr"},
            [](const FaultScene& s) { return s.root() + "/etc/c3"; }),
      0);
}

// A delete whose label read or stat fails does not write a label of zeros.
TEST_F(NamedFault, DeleteWithTheLabelReadOrStatFailing) {
  EXPECT_GT(aimAt("delete", {"getxattr", "lgetxattr", "fgetxattr", "newfstatat", "statx"},
                  [](const FaultScene& s) { return target(s); }),
            0);
}

}  // namespace

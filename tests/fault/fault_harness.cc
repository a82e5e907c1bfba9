#include "tests/fault/fault_harness.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

namespace zorv_fault {

using zorv_testing::runProgram;
using zorv_testing::RunResult;
using zorv_testing::SceneState;

namespace {

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

// Reads a trace log ("PID name(...) = ..." lines). A call on
// "/proc/self/fd/N" gets the path of the descriptor N that the log last saw
// returned (with -y, "= N</path>") appended as "<path>".
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

}  // namespace

const char* modeName(Mode mode) { return mode == Mode::kNative ? "native" : "no-xattrat"; }

bool modeAvailable(Mode mode) {
  return mode == Mode::kNative || (!noXattrAt().empty() && access(noXattrAt().c_str(), X_OK) == 0);
}

bool haveStrace(std::string* why) {
  if (access(strace().c_str(), X_OK) == 0) return true;
  *why = strace() + " is not there (scripts/install-deps.sh installs it)";
  return false;
}

int mostPerThread(const CallLog& log, const std::string& kind) {
  auto it = log.find(kind);
  if (it == log.end()) return 0;
  size_t most = 0;
  for (const auto& [thread, calls] : it->second) most = std::max(most, calls.size());
  return static_cast<int>(most);
}

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

Harness::Harness(const Command& command) : command_(command) {
  command.prepare(scene_);
  scene_.keepAsStart();
  if (command.listener) scene_.startListener();
  scene_.reset();
  start_ = scene_.labels();
  const RunResult clean = scene_.tool(args());
  reference_ = scene_.state();
  cleanOut_ = clean.out;
}

bool Harness::trace(Mode mode, CallLog* log, std::string* why) {
  scene_.reset();
  std::string traced;
  for (const Kind& kind : kinds())
    if (kind.number == 0) traced += std::string(traced.empty() ? "" : ",") + kind.name;
  const std::string logPath = scene_.stateDir() + "/../trace.log";
  const std::string countPath = scene_.stateDir() + "/../xattrat.count";
  std::remove(countPath.c_str());
  std::vector<std::string> argv = prefix(mode);
  if (mode == Mode::kNative && !xattrAtFault().empty())
    argv.insert(argv.end(), {xattrAtFault(), "count", countPath});
  argv.insert(argv.end(), {strace(), "-f", "-qq", "-y", "-o", logPath, "-e", "trace=" + traced});
  const std::vector<std::string> tool = scene_.toolArgv(args());
  argv.insert(argv.end(), tool.begin(), tool.end());
  const RunResult r = runProgram(argv);
  const SceneState after = scene_.state();
  if (after != reference_) {
    *why =
        "the traced run with no fault differs: " + zorv_testing::firstDifference(after, reference_);
    return false;
  }
  *log = readCallLog(logPath);
  std::ifstream counts(countPath);
  long number = 0, thread = 0, calls = 0;
  while (counts >> number >> thread >> calls)
    for (const Kind& kind : kinds())
      if (kind.number == number)
        (*log)[kind.name][std::to_string(thread)].resize(static_cast<size_t>(calls));
  if (log->empty()) {
    *why = "strace recorded no call (status " + std::to_string(r.status) + ")";
    return false;
  }
  return true;
}

Harness::Outcome Harness::run(Mode mode, const Kind& kind, Fault fault, int n) {
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

void Harness::check(Mode mode, const Kind& kind, Fault fault, int n, Counts* row) {
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

std::vector<std::string> Harness::prefix(Mode mode) const {
  if (mode == Mode::kNative) return {};
  return {noXattrAt()};
}

}  // namespace zorv_fault

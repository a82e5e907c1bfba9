// What the fault tests try and how they count it: the kinds of system call
// that are failed, the commands run, the cases known not to be repaired yet,
// and the tables of results.
#ifndef ZORV_TESTS_FAULT_FAULT_PLAN_H_
#define ZORV_TESTS_FAULT_FAULT_PLAN_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/fault/fault_scene.h"

namespace zorv_fault {

using zorv_testing::FaultScene;

/// A kind of system call that is failed.
struct Kind {
  const char* name;
  bool attribute;
  int error;       // what the injected failure answers
  int number = 0;  // for the calls strace cannot name: failed by zorv-xattrat-fault
};
/// Every kind, those strace can name first.
const std::vector<Kind>& kinds();
/// The kind called `name`; throws std::invalid_argument when there is none.
const Kind& kindNamed(const std::string& name);

/// A command of the tool, run on the scene.
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

/// Every command; `commandNamed` throws std::invalid_argument for another name.
const std::vector<Command>& commands();
const Command& commandNamed(const std::string& name);
/// The file the single-file commands work on: a tool of package alpha.
std::string target(const FaultScene& scene);

/// One faulted run: the command, the mode, the kind, "ERR" or "KILL", and
/// which call of the kind (counted per thread).
struct CaseKey {
  std::string command, mode, kind, fault;
  int n;
  std::string text() const {
    return command + " " + mode + " " + kind + " " + fault + " " + std::to_string(n);
  }
};

/// The cases of known_unrepaired.txt, which fail without failing the test
/// while their fixes are in progress ("*" stands for any call).
class KnownList {
 public:
  static KnownList& get();
  /// Whether a line covers `key`; a line that did is no longer unused.
  bool covers(const CaseKey& key);
  /// Lines for `command` in `mode` that matched no failing case.
  std::vector<std::string> unused(const std::string& command, const std::string& mode) const;

 private:
  struct Entry {
    std::string command, mode, kind, fault, n, line;
    bool used = false;
  };
  explicit KnownList(const std::string& path);
  std::vector<Entry> entries_;
};

/// How many faulted runs of one row ended each way.
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

/// Every row of every command run by this test program.
Table& wholeRun();

/// Prints `table`, then `notes`, and, when `file` is given, keeps the same
/// text in the build's fault-tables directory, where scripts/check.sh finds
/// every table of the run to print after the tests.
void printTable(const Table& table, const std::string& title, const std::string& file = "",
                const std::string& notes = "");

}  // namespace zorv_fault

#endif  // ZORV_TESTS_FAULT_FAULT_PLAN_H_

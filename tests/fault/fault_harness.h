// Running one command of the fault tests: a traced run with no fault that
// counts each kind of system call per thread, then runs in which one call
// fails (or the process is killed at it), each judged against the run that
// met no fault and repaired by a clean rerun.
#ifndef ZORV_TESTS_FAULT_FAULT_HARNESS_H_
#define ZORV_TESTS_FAULT_FAULT_HARNESS_H_

#include <map>
#include <string>
#include <vector>

#include "tests/fault/fault_plan.h"
#include "tests/fault/fault_scene.h"

namespace zorv_fault {

/// With the *xattrat calls as the kernel offers them, or refused (the
/// library's fallback).
enum class Mode { kNative, kNoXattrAt };
const char* modeName(Mode mode);
/// Whether runs in `mode` can be made here: the no-xattrat mode needs the
/// program that refuses the calls (built here, or named by ZORV_NO_XATTRAT).
bool modeAvailable(Mode mode);
/// Whether strace is there (ZORV_STRACE names another); otherwise why not.
bool haveStrace(std::string* why);

/// The calls of a trace log, per kind and thread, each thread's calls in
/// order (strace's lines).
using CallLog = std::map<std::string, std::map<std::string, std::vector<std::string>>>;
/// The most calls of `kind` one thread made.
int mostPerThread(const CallLog& log, const std::string& kind);
/// All of 1..count when there are at most `sample`, else `sample` points
/// spread evenly from the first call to the last.
std::vector<int> points(int count, int sample);
/// ZORV_FAULT_SAMPLE, at least 2; 20 by default.
int sampleSize();

enum class Fault { kError, kKill };

/// One command on a scene of its own, with the result of a run that met no
/// fault kept as the reference.
class Harness {
 public:
  explicit Harness(const Command& command);

  const FaultScene& scene() const { return scene_; }
  std::vector<std::string> args() const { return command_.args(scene_); }

  /// The command under strace with no fault, tracing every kind into `log`
  /// (with descriptors' paths); false with `why` when there is no usable log.
  bool trace(Mode mode, CallLog* log, std::string* why);

  struct Outcome {
    bool repaired = true, falseSuccess = false, wrongLabel = false;
    std::string detail;
    bool ok() const { return repaired && !falseSuccess && !wrongLabel; }
  };

  /// Fails call `n` of `kind` (or kills the process at it), then reruns the
  /// command cleanly, and says what the faulted run and the rerun left.
  Outcome run(Mode mode, const Kind& kind, Fault fault, int n);
  /// Runs one case, counts it into `row` and reports it unless it is known.
  void check(Mode mode, const Kind& kind, Fault fault, int n, Counts* row);

 private:
  std::vector<std::string> prefix(Mode mode) const;

  const Command& command_;
  FaultScene scene_;
  std::map<std::string, std::string> start_;
  zorv_testing::SceneState reference_;
  std::string cleanOut_;
};

}  // namespace zorv_fault

#endif  // ZORV_TESTS_FAULT_FAULT_HARNESS_H_

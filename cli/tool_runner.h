// Runs the built zorv-label-manager-tool as a child process and captures what
// it writes, for the end-to-end tests.
#ifndef ZORV_CLI_TOOL_RUNNER_H_
#define ZORV_CLI_TOOL_RUNNER_H_

#include <map>
#include <string>
#include <vector>

#include "testing/test_util.h"

namespace zorv_testing {

struct ToolResult {
  std::string out, err;
  int status = -1;  // exit status, or -1 when a signal ended the run
  int signal = 0;   // the signal that ended the run, or 0
};

/// Runs the tool (argv[0] "zorv-label-manager-tool") with `args`, stdin from
/// /dev/null, the test process's environment plus `env` (an empty value
/// removes the variable) and no core file; killed with SIGKILL when still
/// going after `timeoutSeconds`.
ToolResult runTool(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env = {}, double timeoutSeconds = 30);
/// As runTool, for any program: `program` run as argv[0] `name`, with `input`
/// on its standard input.
ToolResult runProgram(const std::string& program, const std::string& name,
                      const std::vector<std::string>& args,
                      const std::map<std::string, std::string>& env = {},
                      const std::string& input = "", double timeoutSeconds = 30);
/// Expects exactly `out` and `err` from `r`, exit status `status` and no signal.
void expectResult(const ToolResult& r, const std::string& out, int status = 0,
                  const std::string& err = "");
/// The directory of our label manager library's test double.
std::string fakeLabelManagerDir();

/// Runs the tool against the test double, with a script and call log of its own.
class FakeLabelManager {
 public:
  FakeLabelManager() { script(""); }
  /// Replaces the script with `rules` and empties the call log.
  void script(const std::string& rules) {
    writeTextFile(dir_ / "script", rules);
    writeTextFile(dir_ / "calls", "");
  }
  void expect(const std::vector<std::string>& args, const std::string& out, int status = 0,
              const std::string& err = "") const;
  /// Every call the double received, one "operation(arguments)" line each.
  std::string calls() const { return readTextFile(dir_ / "calls"); }

 private:
  ScopedTempDir dir_;
};

}  // namespace zorv_testing

#endif  // ZORV_CLI_TOOL_RUNNER_H_

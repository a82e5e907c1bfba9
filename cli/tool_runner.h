// Runs the built zorv-label-manager-tool as a child process and captures what
// it writes, for the end-to-end tests.
#ifndef ZORV_CLI_TOOL_RUNNER_H_
#define ZORV_CLI_TOOL_RUNNER_H_

#include <map>
#include <string>
#include <vector>

#include "testing/child_process.h"
#include "testing/test_util.h"

namespace zorv_testing {

using ToolResult = ChildResult;

/// Runs the tool (argv[0] "zorv-label-manager-tool") with `args`, stdin from
/// /dev/null, the test process's environment plus `env` (an empty value
/// removes the variable) and no core file; killed with SIGKILL when still
/// going after `timeoutSeconds`.
ToolResult runTool(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env = {}, double timeoutSeconds = 30);
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

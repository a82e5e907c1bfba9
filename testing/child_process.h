// Running a program as a child process for the tests, with what it writes
// captured.
#ifndef ZORV_TESTING_CHILD_PROCESS_H_
#define ZORV_TESTING_CHILD_PROCESS_H_

#include <string>
#include <vector>

namespace zorv_testing {

/// The end of one child process.
struct ChildResult {
  std::string out, err;
  int status = -1;  // exit status, or -1 when a signal ended it
  int signal = 0;   // the signal that ended it, or 0
};

/// Runs the program at `path` with `argv` (argv[0] included) and the
/// environment `env` ("NAME=value" entries), stdin from /dev/null (or
/// reading `input` when that is not empty), standard output and error
/// captured and no core file (an abnormal end is expected in some tests);
/// killed with SIGKILL when still going after `timeoutSeconds`.
ChildResult runChild(const std::string& path, const std::vector<std::string>& argv,
                     const std::vector<std::string>& env, double timeoutSeconds,
                     const std::string& input = "");

/// This process's environment, as runChild() takes it.
std::vector<std::string> currentEnvironment();

}  // namespace zorv_testing

#endif  // ZORV_TESTING_CHILD_PROCESS_H_

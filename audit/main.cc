// zorv-label-audit: checks labels against the policy without changing them.
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "audit/audit_options.h"
#include "audit/audit_run.h"
#include "log/logger.h"

namespace {

// A logger without its configuration says so on standard output, which here
// carries the report (JSON Lines for scripts): it starts while standard
// output points at standard error.
void startLoggerAwayFromStandardOutput() {
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  if (saved < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    if (saved >= 0) ::close(saved);
    return;
  }
  Logger::getInstance();
  std::cout.flush();
  std::fflush(stdout);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
}

}  // namespace

int main(int argc, char** argv) {
  zorv::audit::CommandLine line;
  if (const auto status = zorv::audit::parseCommandLine(argc, argv, &line)) return *status;
  startLoggerAwayFromStandardOutput();
  return zorv::audit::runCommand(line);
}

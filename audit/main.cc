// zorv-label-audit: checks labels against the policy without changing them.
#include "audit/audit_options.h"
#include "audit/audit_run.h"

int main(int argc, char** argv) {
  zorv::audit::CommandLine line;
  if (const auto status = zorv::audit::parseCommandLine(argc, argv, &line)) return *status;
  return zorv::audit::runCommand(line);
}

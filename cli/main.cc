// zorv-label-manager-tool: one label operation per run.
#include "cli/command_options.h"
#include "cli/dispatch.h"

int main(int argc, char** argv) {
  zorv::cli::CommandOptions options;
  if (const auto status = zorv::cli::parseCommandLine(argc, argv, options)) return *status;
  return zorv::cli::runCommand(options);
}

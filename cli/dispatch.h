// Runs the one operation that the parsed options name.
#ifndef ZORV_CLI_DISPATCH_H_
#define ZORV_CLI_DISPATCH_H_

#include "cli/command_options.h"

namespace zorv::cli {

/// Opens the system log (ident "zorv-label-manager", facility daemon), runs
/// the operation of `options.action` and returns the exit status; 1 without an
/// action. Several get or delete selectors run in a fixed order over the same
/// operands. The system log is closed on the normal ends only.
int runCommand(const CommandOptions& options);

}  // namespace zorv::cli

#endif  // ZORV_CLI_DISPATCH_H_

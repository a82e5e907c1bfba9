// -g -u: which values users have set by hand, for one file, pattern or package,
// or for all of them with the word "--all".
#ifndef ZORV_CLI_USER_SET_QUERIES_H_
#define ZORV_CLI_USER_SET_QUERIES_H_

#include "cli/command_options.h"

namespace zorv::cli {

/// True when the options ask a user-set query: -u with -p, -o, -m, -t or -n.
bool isUserSetQuery(const CommandOptions& options);

/// Answers the first of -p, -o, -m, -t, -n present, printing one line per
/// record (or the "none" or "failed" line), and frees the library's array.
/// Returns the exit status, always 0: a query never fails the run.
int runUserSetQuery(const CommandOptions& options);

}  // namespace zorv::cli

#endif  // ZORV_CLI_USER_SET_QUERIES_H_

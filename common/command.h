// Running external programs and finding commands on PATH.
#ifndef ZORV_COMMON_COMMAND_H_
#define ZORV_COMMON_COMMAND_H_

#include <string>
#include <vector>

#include "log/export.h"

/// Runs `path` (no PATH search) with `args` and the caller's environment and
/// returns its standard output in pieces of at most 1023 bytes, one per line,
/// newline removed. Empty, with an error line, on any failure or a non-zero
/// exit. Leaves no descriptor open.
ZORV_EXPORT std::vector<std::string> executeCommand(const std::string& path,
                                                    const std::vector<std::string>& args);
/// Some PATH entry + "/" + name exists with the owner execute bit set.
ZORV_EXPORT bool commandExists(const std::string& name);

#endif  // ZORV_COMMON_COMMAND_H_

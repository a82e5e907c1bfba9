// Pieces of the /proc readers that are not part of the library's public
// surface; exposed here only so the parsing can be tested on given texts.
#ifndef ZORV_COMMON_PROCESS_INTERNAL_H_
#define ZORV_COMMON_PROCESS_INTERNAL_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace process_internal {

/// One kernel command line split at every single space into name/value pairs:
/// doubled or leading spaces give empty tokens (a pair of two empty strings),
/// the value is everything behind the first '=', nothing is trimmed or unquoted.
std::vector<std::pair<std::string, std::string>> splitKernelCmdline(const std::string& line);

/// The fourth field (the parent pid) of a /proc/PID/stat text, skipping a
/// command name in parentheses that holds spaces; -1 when the text is too
/// short or the field is not a number.
int32_t parentPidFromStat(const std::string& statText);

/// The parent of `pid` read from "/proc/PID/stat", or -1.
int32_t getParentPid(int32_t pid);

/// The target of "/proc/PID/exe", or "" (with a debug line) when it cannot be
/// read: the process ended, access was denied, or it is a kernel thread.
std::string getProcessExecutablePath(int32_t pid);

}  // namespace process_internal

#endif  // ZORV_COMMON_PROCESS_INTERNAL_H_

// Looking at the running system through /proc.
#ifndef ZORV_COMMON_PROCESS_H_
#define ZORV_COMMON_PROCESS_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "log/export.h"

/// The kernel command line split at every single space into name/value pairs.
ZORV_EXPORT std::vector<std::pair<std::string, std::string>> parseKernelCmdline();
/// The ancestors of `pid`, nearest first, up to (not including) init.
ZORV_EXPORT std::vector<int32_t> getAllParent(int32_t pid);
/// Every readable /proc/PID/exe target with the pids that run it.
ZORV_EXPORT std::map<std::string, std::vector<int32_t>> findProcessExeFile();

#endif  // ZORV_COMMON_PROCESS_H_

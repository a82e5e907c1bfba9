// The command line of zorv-label-audit, parsed into one plain record.
#ifndef ZORV_AUDIT_AUDIT_OPTIONS_H_
#define ZORV_AUDIT_AUDIT_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

namespace zorv::audit {

enum class Command { kCheck, kExplain };

struct CommandLine {
  Command command = Command::kCheck;
  bool json = false;
  bool summary = false;               // check
  bool noCache = false;               // check
  bool nulInput = false;              // explain -0: paths from standard input
  std::string root;                   // --root
  std::vector<std::string> excludes;  // check --exclude
  std::vector<std::string> paths;
};

/// Exit statuses, as diff has them.
constexpr int kSame = 0;
constexpr int kDiffers = 1;
constexpr int kTrouble = 2;

/// Parses argv. Nothing (and `line` filled) to go on; else the status to exit
/// with, after the usage (--help: on standard output, status 0) or an error
/// line on standard error.
std::optional<int> parseCommandLine(int argc, char** argv, CommandLine* line);

}  // namespace zorv::audit

#endif  // ZORV_AUDIT_AUDIT_OPTIONS_H_

// The option record of one run and the one option table that fills it.
#ifndef ZORV_CLI_COMMAND_OPTIONS_H_
#define ZORV_CLI_COMMAND_OPTIONS_H_

#include <optional>

namespace zorv::cli {

/// The operation of a run; the numbers are those scripts may see in logs.
enum class Action { Add = 0, Get = 1, Delete = 2, Restore = 3, Init = 4, Subscribe = 5, None = 6 };

/// Everything the command line asked for. The texts are borrowed from argv and
/// live as long as it; nothing here is owned.
struct CommandOptions {
  Action action = Action::None;
  int patternMatch = 0;  // -P: the path is a wildcard pattern
  bool labelMode = false;
  const char* labelPath = nullptr;
  const char* inheritFlagArg = nullptr;
  const char* pkgIdArg = nullptr;
  const char* sidArg = nullptr;
  const char* tidArg = nullptr;
  const char* oidArg = nullptr;
  const char* pkgNameArg = nullptr;
  const char* topic = nullptr;
  bool recursive = false;
  bool userSet = false;
  const char* scanRoot = nullptr;
  const char* moduleName = nullptr;
  const char* deviceName = nullptr;
  const char* creatorOidArg = nullptr;  // read, but no operation acts on it
  bool clear = false;
  bool batch = false;

  // The argument vector after option parsing (GNU getopt has moved the
  // non-option words behind the options).
  int argc = 0;
  char** argv = nullptr;
  /// Index of the first operand: optind - 1, i.e. the argument of the last
  /// option parsed heads the operand list. Scripts rely on this.
  int operandStart = 0;
};

/// Reads the whole command line into `options`. Returns nothing when the run
/// goes on, or the exit status when it has already ended: usage printed (no
/// arguments, -h), SM3 value printed (-3), or getopt_long rejected an option
/// (its own message on standard error, status 1). Sets the process-wide
/// noDereference flag for -H. Permutes argv as GNU getopt does.
std::optional<int> parseCommandLine(int argc, char** argv, CommandOptions& options);

}  // namespace zorv::cli

#endif  // ZORV_CLI_COMMAND_OPTIONS_H_

#include "cli/command_options.h"

#include <getopt.h>

#include "cli/label_walker.h"
#include "cli/restore_lookup.h"
#include "cli/usage.h"

namespace zorv::cli {
namespace {

// The long and short forms disagree about arguments for del, clear and batch;
// scripts in the field depend on both behaviours, so the table keeps them.
constexpr char kShortOptions[] = "agdris:v:uo:m:t:n:f:p:q:k:e:l:c:bPRHL:ST:3:h";
const struct option kLongOptions[] = {
    {"add", no_argument, nullptr, 'a'},
    {"get", no_argument, nullptr, 'g'},
    {"del", required_argument, nullptr, 'd'},
    {"restore", no_argument, nullptr, 'r'},
    {"init", no_argument, nullptr, 'i'},
    {"scan", required_argument, nullptr, 's'},
    {"id", required_argument, nullptr, 'v'},
    {"user-set", no_argument, nullptr, 'u'},
    {"oid", required_argument, nullptr, 'o'},
    {"sid", required_argument, nullptr, 'm'},
    {"tid", required_argument, nullptr, 't'},
    {"inherit-flag", required_argument, nullptr, 'n'},
    {"creator-oid", required_argument, nullptr, 'f'},
    {"pkg-id", required_argument, nullptr, 'p'},
    {"pkg-name", required_argument, nullptr, 'q'},
    {"module", required_argument, nullptr, 'k'},
    {"device", required_argument, nullptr, 'e'},
    {"label", required_argument, nullptr, 'l'},
    {"clear", no_argument, nullptr, 'c'},
    {"help", no_argument, nullptr, 'h'},
    {"batch", required_argument, nullptr, 'b'},
    {"recursive", no_argument, nullptr, 'R'},
    {"dir-label", required_argument, nullptr, 'L'},
    {"no-dereference", no_argument, nullptr, 'H'},
    {"pattern-match", no_argument, nullptr, 'P'},
    {"subscribe", no_argument, nullptr, 'S'},
    {"topic", required_argument, nullptr, 'T'},
    {"sm3", required_argument, nullptr, '3'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

std::optional<int> parseCommandLine(int argc, char** argv, CommandOptions& options) {
  if (argc == 1) {
    printUsage();
    return 0;
  }
  options = CommandOptions{};
  options.argc = argc;
  options.argv = argv;
  noDereference = false;

  optind = 0;  // full re-initialisation, so that the parser can run more than once
  int option;
  while ((option = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
    switch (option) {
      case 'a':
        options.action = Action::Add;
        break;
      case 'g':
        options.action = Action::Get;
        break;
      case 'd':
        options.action = Action::Delete;
        break;
      case 'r':
        options.action = Action::Restore;
        break;
      case 'i':
        options.action = Action::Init;
        break;
      case 'S':
        options.action = Action::Subscribe;
        break;
      case 's':
        options.scanRoot = optarg;
        break;
      case 'v':
        break;
      case 'u':
        options.userSet = true;
        break;
      case 'o':
        options.oidArg = optarg;
        break;
      case 'm':
        options.sidArg = optarg;
        break;
      case 't':
        options.tidArg = optarg;
        break;
      case 'n':
        options.inheritFlagArg = optarg;
        break;
      case 'f':
        options.creatorOidArg = optarg;
        break;
      case 'p':
        options.pkgIdArg = optarg;
        break;
      case 'q':
        options.pkgNameArg = optarg;
        break;
      case 'k':
        options.moduleName = optarg;
        break;
      case 'e':
        options.deviceName = optarg;
        break;
      case 'l':
        options.labelMode = true;
        options.labelPath = optarg;
        break;
      case 'c':
        options.clear = true;
        break;
      case 'b':
        options.batch = true;
        break;
      case 'R':
        options.recursive = true;
        break;
      case 'L':
        options.labelMode = true;
        options.recursive = true;
        break;
      case 'H':
        noDereference = true;
        break;
      case 'P':
        options.patternMatch = 1;
        break;
      case 'T':
        options.topic = optarg;
        break;
      case 'h':
        printUsage();
        return 0;
      case '3':
        return printSm3Value(optarg);
      default:
        return 1;  // getopt_long has already said why
    }
  }
  options.operandStart = optind - 1;
  return std::nullopt;
}

}  // namespace zorv::cli

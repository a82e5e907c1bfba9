#include "audit/audit_options.h"

#include <getopt.h>

#include <cstdio>
#include <cstring>

namespace zorv::audit {

namespace {

const char kUsage[] =
    "Usage: zorv-label-audit check [--json] [--summary] [--exclude GLOB]... [--no-cache]\n"
    "                              [--root DIR] [PATH...]\n"
    "       zorv-label-audit explain [--json] [--root DIR] PATH...\n"
    "       zorv-label-audit explain [--json] [--root DIR] -0 < NUL-SEPARATED-PATHS\n"
    "Compares labels with what whole-tree labelling and restore would write, and\n"
    "says where each value comes from. Writes nothing. Exit status: 0 nothing\n"
    "differs, 1 something differs, 2 trouble.\n";

enum Option { kJson = 256, kSummary, kExclude, kNoCache, kRoot, kHelp };

const struct option kOptions[] = {
    {"json", no_argument, nullptr, kJson},
    {"summary", no_argument, nullptr, kSummary},
    {"exclude", required_argument, nullptr, kExclude},
    {"no-cache", no_argument, nullptr, kNoCache},
    {"root", required_argument, nullptr, kRoot},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

int misuse(const std::string& text) {
  std::fprintf(stderr, "zorv-label-audit: %s\n%s", text.c_str(), kUsage);
  return kTrouble;
}

}  // namespace

std::optional<int> parseCommandLine(int argc, char** argv, CommandLine* line) {
  if (argc < 2) return misuse("no command given");
  std::string command = argv[1];
  if (command == "--help" || command == "-h") {
    std::fputs(kUsage, stdout);
    return kSame;
  }
  if (command == "check") {
    line->command = Command::kCheck;
  } else if (command == "explain") {
    line->command = Command::kExplain;
  } else {
    return misuse("unknown command " + command);
  }
  bool check = line->command == Command::kCheck;
  optind = 1;  // argv[1], the command, is taken for the program name
  opterr = 0;
  for (int c; (c = getopt_long(argc - 1, argv + 1, "+0h", kOptions, nullptr)) != -1;) {
    switch (c) {
      case kJson:
        line->json = true;
        break;
      case kRoot:
        line->root = optarg;
        break;
      case kHelp:
      case 'h':
        std::fputs(kUsage, stdout);
        return kSame;
      case kSummary:
      case kExclude:
      case kNoCache:
        if (!check) return misuse("--summary, --exclude and --no-cache belong to check");
        if (c == kSummary) line->summary = true;
        if (c == kNoCache) line->noCache = true;
        if (c == kExclude) line->excludes.push_back(optarg);
        break;
      case '0':
        if (check) return misuse("-0 belongs to explain");
        line->nulInput = true;
        break;
      default:
        return misuse("unknown option, or one without its argument");
    }
  }
  for (int i = optind + 1; i < argc; ++i) line->paths.push_back(argv[i]);
  if (!check && line->nulInput == !line->paths.empty())
    return misuse("explain takes paths, or -0 and paths on standard input");
  return std::nullopt;
}

}  // namespace zorv::audit

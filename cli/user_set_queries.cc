#include "cli/user_set_queries.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cli/output.h"
#include "cli/zorvlabelmgr.h"

namespace zorv::cli {
namespace {

struct FreeDeleter {
  void operator()(UserSetRecord* p) const { std::free(p); }
};

bool isAll(const char* arg) { return std::strcmp(arg, "--all") == 0; }

struct FileFieldQuery {
  int (*show)(UserSetRecord**);
  int (*query)(const char*, UserSetRecord**, int);
  const char* name;        // in records and in the line saying there are none
  const char* failedName;  // in the line saying the query failed
  bool threeValues;        // OID and SID records carry package, file and path
};

const FileFieldQuery kOidQuery = {showUserSetFileOid, queryUserSetFileOid, "oid", "oid", true};
const FileFieldQuery kSidQuery = {showUserSetFileSid, queryUserSetFileSid, "sid", "sid", true};
const FileFieldQuery kTidQuery = {showUserSetFileTid, queryUserSetFileTid, "tid", "tid", false};
const FileFieldQuery kInheritFlagQuery = {showUserSetFileInheritFlag, queryUserSetFileInheritFlag,
                                          "inherit_flag", "inherit flag", false};

void queryFileField(const FileFieldQuery& q, const char* arg, int patternMatch) {
  UserSetRecord* raw = nullptr;
  const int count = isAll(arg) ? q.show(&raw) : q.query(arg, &raw, patternMatch);
  if (count == 0) {
    printLine({"No ", q.name, " has been set for any file."});
    return;
  }
  if (count < 0) {
    printFormatted("query user set %s failed, count = %d\n", q.failedName, count);
    return;
  }
  std::unique_ptr<UserSetRecord[], FreeDeleter> records(raw);
  for (int i = 0; i < count; ++i) {
    const UserSetRecord& r = records[i];
    if (q.threeValues) {
      printFormatted("%s, %s : 0x%016" PRIx64 "-0x%016" PRIx64 "-0x%016" PRIx64 "\n", r.path,
                     q.name, r.value[0], r.value[1], r.value[2]);
    } else {
      printFormatted("%s, %s : 0x%08" PRIx64 "\n", r.path, q.name, r.value[0]);
    }
  }
}

void queryPackageId(const char* arg) {
  if (isAll(arg)) {
    UserSetRecord* raw = nullptr;
    const int count = showUserSetPkgId(&raw);
    if (count == 0) {
      printLine("No package id has been set.");
    } else if (count < 0) {
      printFormatted("Failed to show the user setting id, count = %d\n", count);
    } else {
      std::unique_ptr<UserSetRecord[], FreeDeleter> records(raw);
      for (int i = 0; i < count; ++i) {
        printFormatted("%s, pkgid : 0x%016" PRIx64 "\n", records[i].path, records[i].value[0]);
      }
    }
    return;
  }
  uint64_t id = 0;
  if (queryUserSetPkgId(arg, &id) == 0) {
    printFormatted("%s, pkgid : 0x%016" PRIx64 "\n", arg, id);
  } else {
    printFormatted("No id has been set for the %s package\n", arg);
  }
}

}  // namespace

bool isUserSetQuery(const CommandOptions& options) {
  return options.userSet && (options.pkgIdArg || options.oidArg || options.sidArg ||
                             options.tidArg || options.inheritFlagArg);
}

int runUserSetQuery(const CommandOptions& options) {
  if (options.pkgIdArg) {
    queryPackageId(options.pkgIdArg);
  } else if (options.oidArg) {
    queryFileField(kOidQuery, options.oidArg, options.patternMatch);
  } else if (options.sidArg) {
    queryFileField(kSidQuery, options.sidArg, options.patternMatch);
  } else if (options.tidArg) {
    queryFileField(kTidQuery, options.tidArg, options.patternMatch);
  } else if (options.inheritFlagArg) {
    queryFileField(kInheritFlagQuery, options.inheritFlagArg, options.patternMatch);
  }
  return 0;
}

}  // namespace zorv::cli

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
  bool threeValues;  // OID and SID records carry package, file and path
  const char* recordFormat;
  const char* noneLine;
  const char* failedFormat;
};

const FileFieldQuery kOidQuery = {showUserSetFileOid,
                                  queryUserSetFileOid,
                                  true,
                                  "%s, oid : 0x%016" PRIx64 "-0x%016" PRIx64 "-0x%016" PRIx64 "\n",
                                  "No oid has been set for any file.",
                                  "query user set oid failed, count = %d\n"};
const FileFieldQuery kSidQuery = {showUserSetFileSid,
                                  queryUserSetFileSid,
                                  true,
                                  "%s, sid : 0x%016" PRIx64 "-0x%016" PRIx64 "-0x%016" PRIx64 "\n",
                                  "No sid has been set for any file.",
                                  "query user set sid failed, count = %d\n"};
const FileFieldQuery kTidQuery = {showUserSetFileTid,
                                  queryUserSetFileTid,
                                  false,
                                  "%s, tid : 0x%08" PRIx64 "\n",
                                  "No tid has been set for any file.",
                                  "query user set tid failed, count = %d\n"};
const FileFieldQuery kInheritFlagQuery = {showUserSetFileInheritFlag,
                                          queryUserSetFileInheritFlag,
                                          false,
                                          "%s, inherit_flag : 0x%08" PRIx64 "\n",
                                          "No inherit_flag has been set for any file.",
                                          "query user set inherit flag failed, count = %d\n"};

void queryFileField(const FileFieldQuery& q, const char* arg, int patternMatch) {
  UserSetRecord* raw = nullptr;
  const int count = isAll(arg) ? q.show(&raw) : q.query(arg, &raw, patternMatch);
  if (count == 0) {
    printLine(q.noneLine);
    return;
  }
  if (count < 0) {
    printFormatted(q.failedFormat, count);
    return;
  }
  std::unique_ptr<UserSetRecord[], FreeDeleter> records(raw);
  for (int i = 0; i < count; ++i) {
    const UserSetRecord& r = records[i];
    if (q.threeValues) {
      printFormatted(q.recordFormat, r.path, r.value[0], r.value[1], r.value[2]);
    } else {
      printFormatted(q.recordFormat, r.path, r.value[0]);
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

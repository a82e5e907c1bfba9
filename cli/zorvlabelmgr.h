// The operations of the label manager library libzorvlabelmgr, as the tool
// calls them. Our library, the test double and the tool are all compiled
// against this one header.
//
// Conventions: paths and names are NUL-terminated texts taken straight from the
// command line. "Status" results are 0 on success; "sign" results are negative
// on failure; "count" results are the number of records (0 = none, negative =
// failure). Memory the library returns (record arrays, names, messages) is
// allocated with malloc and released by the caller with free().
#ifndef ZORV_CLI_ZORVLABELMGR_H_
#define ZORV_CLI_ZORVLABELMGR_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// An identifier: package, file and path numbers.
struct ZORV_ID {
  uint64_t pkg;
  uint64_t file;
  uint64_t path;
};

/// One user-set value. OID and SID records use all three values (package,
/// file, path); TID, inherit-flag and package-id records use the first only.
struct UserSetRecord {
  char path[4096];  // NUL-terminated path, pattern or package name
  uint64_t value[3];
};
static_assert(sizeof(UserSetRecord) == 4120, "UserSetRecord is shared with the library");

using PolicyTable = std::map<std::string, std::vector<std::string>>;
using PolicyResult = std::map<std::string, std::map<std::string, std::vector<ZORV_ID>>>;

// Label fields of a file, or with patternMatch 1 of every file a wildcard
// pattern matches. Status.
int setFileOid(const char* path, int patternMatch, ZORV_ID oid);
int setFileSid(const char* path, int patternMatch, ZORV_ID sid);
int setFileTid(const char* path, uint32_t tid, int patternMatch);
int setFileInheritFlag(const char* path, uint32_t inheritFlag, int patternMatch);

// Sign.
int getFileOid(const char* path, ZORV_ID* oid);
int getFileSid(const char* path, ZORV_ID* sid);
int getFileTid(const char* path, uint32_t* tid);
int getFileInheritFlag(const char* path, uint32_t* inheritFlag);

// Remove a user-set value and give the field its policy value back. Status.
int delFileOid(const char* path, int patternMatch);
int delFileSid(const char* path, int patternMatch);
int delFileTid(const char* path, int patternMatch);
int delFileInheritFlag(const char* path, int patternMatch);

// The same for every user-set value of the field. Status.
int clearFileOid();
int clearFileSid();
int clearFileTid();
int clearFileInheritFlag();

int setPkgId(const char* pkgName, uint64_t pkgId);   // status
int getPkgId(const char* pkgName, uint64_t* pkgId);  // sign
char* getPkgNameById(uint64_t pkgId);                // malloc'ed, or null
int delUserSetPkgId(const char* pkgName);            // status
int clearUserSetPkgId();                             // status

// User-set values. *records is preset to null by the caller; on a positive
// count it holds a malloc'ed array of that many records.
int queryUserSetFileOid(const char* path, UserSetRecord** records, int patternMatch);
int queryUserSetFileSid(const char* path, UserSetRecord** records, int patternMatch);
int queryUserSetFileTid(const char* path, UserSetRecord** records, int patternMatch);
int queryUserSetFileInheritFlag(const char* path, UserSetRecord** records, int patternMatch);
int showUserSetFileOid(UserSetRecord** records);
int showUserSetFileSid(UserSetRecord** records);
int showUserSetFileTid(UserSetRecord** records);
int showUserSetFileInheritFlag(UserSetRecord** records);
int queryUserSetPkgId(const char* pkgName, uint64_t* pkgId);  // status: 0 = set
int showUserSetPkgId(UserSetRecord** records);

/// The file's new label (policy plus user-set values) as text; "" on failure.
std::string restoreSingleFileLabel(const std::string& path);
/// The file's initial (policy) label as text; "" on failure.
std::string restoreSingleFileInitLabel(const std::string& path);
/// Labels every file under `root`, skipping `excludes`.
int addTagFullSystem(const std::string& root, const std::vector<std::string>& excludes);
/// 1 once a whole-tree labelling has completed, 0 before; our library answers 2
/// while the last run left files unlabelled.
int getLabelSetStatus();

int getKernelModuleOid(const char* moduleName, uint64_t* oid);  // sign
int getDeviceOid(const char* deviceName, uint64_t* oid);        // sign

/// Resolves each policy item of `policies` into identifiers. Status.
int policies_parse(const PolicyTable& policies, PolicyResult& result);

// Label-change messages. The handle is opaque and lives until process exit.
void* createSubscriber();
int subscribeLabelChangeMsg(void* subscriber, const std::string& topic);  // status
/// Blocks for the next message; *message is preset to null by the caller and
/// receives a malloc'ed text. Status.
int recvLabelChangeMsg(void* subscriber, char** message);

#endif  // ZORV_CLI_ZORVLABELMGR_H_

// Lookups that label nothing: kernel-module and device OIDs, the policy
// self-test and the whole-tree status.
#include <limits.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "cli/zorvlabelmgr.h"
#include "common/env_path.h"
#include "common/path_safety.h"
#include "common/sm3.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/package_ids.h"
#include "labelmgr/path_digest.h"
#include "labelmgr/path_gate.h"
#include "labelmgr/state_db.h"
#include "log/logger.h"

namespace {

namespace lm = zorv::labelmgr;

// The kernel keeps module names to 55 characters.
constexpr size_t kMaxModuleName = 55;

// The kernel's own spelling: '-' and '_' are the same in module names.
std::string kernelModuleName(const std::string& name) {
  std::string normal = name;
  for (char& c : normal)
    if (c == '-') c = '_';
  return normal;
}

bool isModuleLoaded(const std::string& name) {
  std::string dir = zorv::envPathOr("ZORV_LABELMGR_MODULE_DIR", "/sys/module") + "/" + name;
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string modulesDepPath() {
  struct utsname system;
  std::string release = uname(&system) == 0 ? system.release : "";
  return zorv::envPathOr("ZORV_LABELMGR_MODULES_DEP", "/lib/modules/" + release + "/modules.dep");
}

// modules.dep lines read "kernel/dir/name.ko[.xz]: dependencies".
bool isModuleInstalled(const std::string& name) {
  std::ifstream dep(modulesDepPath());
  std::string line;
  while (std::getline(dep, line)) {
    std::string file = line.substr(0, line.find(':'));
    file = file.substr(file.rfind('/') + 1);  // npos + 1 == 0
    size_t ko = file.find(".ko");
    if (ko == std::string::npos) continue;
    if (kernelModuleName(file.substr(0, ko)) == name) return true;
  }
  return false;
}

ZORV_ID toZorvId(const Id& id) { return ZORV_ID{id.pkg_, id.file_, id.path_}; }

// The path a policy item names: canonical when it exists, else as written.
std::string policyItemPath(const std::string& item) {
  char resolved[PATH_MAX];
  if (realpath(item.c_str(), resolved) != nullptr) return resolved;
  std::string normal = std::filesystem::path(item).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

bool isFileKind(const std::string& kind) { return kind == "object_file" || kind == "subject_file"; }
bool isPatternKind(const std::string& kind) {
  return kind == "object_recurfile" || kind == "subject_recurfile";
}
bool isPackageKind(const std::string& kind) {
  return kind == "object_pkg" || kind == "subject_pkg";
}

}  // namespace

int getKernelModuleOid(const char* moduleName, uint64_t* oid) {
  if (moduleName == nullptr || oid == nullptr) {
    ZLOG_ERROR("no module name or no place for the OID");
    return -1;
  }
  size_t length = strlen(moduleName);
  bool valid = length >= 1 && length <= kMaxModuleName &&
               strspn(moduleName,
                      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                      "0123456789_-") == length;
  if (!valid) {
    ZLOG_ERROR("invalid kernel module name: %s", moduleName);
    return -1;
  }
  std::string name = kernelModuleName(moduleName);
  if (!isModuleLoaded(name) && !isModuleInstalled(name)) {
    ZLOG_ERROR("unknown kernel module: %s", moduleName);
    return -1;
  }
  *oid = getKmodNameHash(name.data(), static_cast<uint32_t>(name.size()));
  return 0;
}

int getDeviceOid(const char* deviceName, uint64_t* oid) {
  if (deviceName == nullptr || oid == nullptr) {
    ZLOG_ERROR("no device name or no place for the OID");
    return -1;
  }
  std::string path = deviceName[0] == '/' ? deviceName : std::string("/dev/") + deviceName;
  zorv::PinnedEntry entry;
  if (!lm::admitExactPath(path.c_str(), &entry)) return -1;
  const std::string& device = entry.path;
  const struct stat& st = entry.st;
  if (device.compare(0, 5, "/dev/") != 0 || !(S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))) {
    ZLOG_ERROR("not a device under /dev: %s", deviceName);
    return -1;
  }
  if (!lm::digestsAvailable()) return -1;
  *oid = lm::sm3Last64Bits(device);
  return 0;
}

int policies_parse(const PolicyTable& policies, PolicyResult& result) {
  // First the paths every file and pattern item stands for, so that the dpkg
  // lists are searched for just those.
  std::map<std::string, std::map<std::string, std::vector<std::string>>> itemPaths;
  std::vector<std::string> allPaths;
  for (const auto& [kind, items] : policies) {
    if (!isFileKind(kind) && !isPatternKind(kind) && !isPackageKind(kind)) {
      ZLOG_ERROR("unknown policy kind: %s", kind.c_str());
      return -1;
    }
    for (const std::string& item : items) {
      std::vector<std::string>& paths = itemPaths[kind][item];
      if (isFileKind(kind)) {
        // A policy may name a file that is not there (yet): its OID follows
        // from the path all the same.
        if (!isFilePathSafe(item, true, false, true)) return -1;
        paths.push_back(policyItemPath(item));
      } else if (isPatternKind(kind)) {
        std::string pattern = lm::admitPattern(item);
        if (pattern.empty()) return -1;
        paths = lm::filesCoveredBy(pattern);
      } else if (!lm::admitPackageName(item.c_str())) {
        return -1;
      }
      allPaths.insert(allPaths.end(), paths.begin(), paths.end());
    }
  }

  bool absent = false;
  std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kExisting, &absent);
  if (db == nullptr && !absent) return -1;
  std::unique_ptr<lm::LabelPolicy> policy = lm::LabelPolicy::loadFor(db.get(), allPaths);
  if (policy == nullptr) return -1;

  for (const auto& [kind, items] : itemPaths) {
    std::map<std::string, std::vector<ZORV_ID>>& resolved = result[kind];
    for (const auto& [item, paths] : items) {
      std::vector<ZORV_ID>& ids = resolved[item];
      ids.clear();
      if (!isPackageKind(kind)) {
        for (const std::string& path : paths) ids.push_back(toZorvId(policy->policyOid(path)));
        continue;
      }
      std::optional<uint64_t> id = policy->packageIds().idOf(item);
      if (id)
        ids.push_back(ZORV_ID{*id, 0, 0});
      else
        ZLOG_WARN("package %s is neither installed nor given an id", item.c_str());
    }
  }
  return 0;
}

int getLabelSetStatus() { return lm::readLabelSetStatus(); }

#include "cli/restore_lookup.h"

#include <sys/time.h>

#include <cinttypes>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>

#include "cli/number_conversion.h"
#include "cli/output.h"
#include "cli/test_policies.h"
#include "cli/zorvlabelmgr.h"
#include "common/sm3.h"

namespace zorv::cli {
namespace {

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

int restoreWith(const char* labelPath, std::string (*restore)(const std::string&),
                const char* successText, const char* failureText) {
  if (labelPath == nullptr || *labelPath == '\0') {
    printLine("The parameter is incorrect, the file path is empty...");
    return 1;
  }
  const std::string label = restore(labelPath);
  if (label.empty()) {
    printLine(std::string(labelPath) + failureText);
    return 1;
  }
  printLine(std::string(labelPath) + successText + label);
  return 0;
}

// Package kinds resolve to a package id, carried in the first number alone.
bool isPackageKind(const std::string& kind) {
  return kind == "subject_pkg" || kind == "object_pkg";
}

}  // namespace

int restoreLabel(const char* labelPath) {
  return restoreWith(labelPath, restoreSingleFileLabel,
                     " restore label success, new label: ", " restore label failed...");
}

int initLabel(const char* labelPath) {
  return restoreWith(labelPath, restoreSingleFileInitLabel,
                     " init label success, init label: ", " init label failed...");
}

void labelFullSystem(const char* root) {
  printLine("set the label for files begin, please wait...");
  struct timeval start, end;
  gettimeofday(&start, nullptr);
  addTagFullSystem(root, {});
  gettimeofday(&end, nullptr);
  const double elapsed =
      static_cast<double>((end.tv_sec - start.tv_sec) * 1000000 + end.tv_usec - start.tv_usec) /
      1000000;
  std::cout << "set the label for files end, cost time = " << std::fixed << std::setprecision(4)
            << elapsed << " seconds" << std::endl;
}

bool printKernelModuleOid(const char* moduleName) {
  uint64_t oid = 0;
  if (getKernelModuleOid(moduleName, &oid) < 0) {
    printLine("get kernel module oid error..");
    return false;
  }
  printFormatted("module Oid:%016" PRIx64 "\n", oid);
  return true;
}

bool printDeviceOid(const char* deviceName) {
  uint64_t oid = 0;
  if (getDeviceOid(deviceName, &oid) < 0) {
    printLine("get device oid error..");
    return false;
  }
  printFormatted("device Oid:%016" PRIx64 "\n", oid);
  return true;
}

bool printPackageName(const char* pkgIdWord) {
  std::unique_ptr<char, FreeDeleter> name(getPkgNameById(toUnsigned64(pkgIdWord, 16)));
  if (name == nullptr) {
    printLine("get pkg name by id error");
    return false;
  }
  printLine(std::string("pkg name: ") + name.get());
  return true;
}

int printSm3Value(const char* path) {
  printFormatted("SM3 Hash (last 64 bits): %016" PRIx64 "\n", getSM3HashLast64Bits(path));
  return 0;
}

bool runPolicySelfTest() {
  PolicyResult result;
  const int status = policies_parse(testPolicies, result);
  // The begin line follows the call on purpose: watchers of this output key on
  // that order.
  printLine("policies_parse test begin");
  if (status != 0) {
    printLine("policies_parse error!");
    return false;
  }
  for (const auto& [kind, items] : result) {
    for (const auto& [item, ids] : items) {
      for (const ZORV_ID& id : ids) {
        std::cout << kind << ":" << item << " " << std::hex << std::setfill('0') << std::setw(16)
                  << id.pkg;
        if (!isPackageKind(kind)) {
          std::cout << "-" << std::setw(16) << id.file << "-" << std::setw(16) << id.path;
        }
        std::cout << std::endl;
      }
    }
  }
  printLine("policies_parse test end");
  std::cout << "LabelSetStatus: " << getLabelSetStatus() << std::endl;
  return true;
}

}  // namespace zorv::cli

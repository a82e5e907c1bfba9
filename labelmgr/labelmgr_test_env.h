// Tests of the label manager library run on a temporary tree of files with
// their own state directory and fake dpkg database.
#ifndef ZORV_LABELMGR_LABELMGR_TEST_ENV_H_
#define ZORV_LABELMGR_LABELMGR_TEST_ENV_H_

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/zorvlabelmgr.h"
#include "common/sm3.h"
#include "label/label.h"
#include "testing/test_util.h"

namespace zorv_testing {

class LabelMgrTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char resolved[PATH_MAX];
    ASSERT_NE(nullptr, realpath(tmp_.path().c_str(), resolved));
    base_ = resolved;
    root_ = base_ + "/root";
    makeDirs(root_);
    // "alpha" and "beta" are installed, "gamma" only left its configuration.
    writeTextFile(base_ + "/dpkg/status",
                  "Package: alpha\nStatus: install ok installed\nVersion: 1\n"
                  "Description: first\n second line\n\n"
                  "Package: gamma\nStatus: deinstall ok config-files\n\n"
                  "Package: beta\nArchitecture: amd64\nStatus: install ok installed\n");
    writeTextFile(base_ + "/dpkg/info/alpha.list", "/.\n" + root_ + "/bin\n" + root_ +
                                                       "/bin/alpha-tool\n" + root_ + "/share\n" +
                                                       root_ + "/bin-link/linked-tool\n");
    writeTextFile(base_ + "/dpkg/info/beta:amd64.list",
                  "/.\n" + root_ + "/share\n" + root_ + "/etc/beta.conf\n");
    writeTextFile(base_ + "/dpkg/info/gamma.list", root_ + "/etc/gamma.conf\n");
  }

  // Creates root/relative (and its parents) with `mode`; answers its path.
  std::string makeFile(const std::string& relative, mode_t mode = 0644) {
    std::string path = root_ + "/" + relative;
    writeTextFile(path, "x");
    chmod(path.c_str(), mode);
    return path;
  }
  std::string stateDb() const { return base_ + "/state/labelmgr.db"; }
  bool stateExists() const { return access(stateDb().c_str(), F_OK) == 0; }
  static bool hasLabel(const std::string& path) { return Label().getFromXattr(path, false) == 0; }
  static Label labelOf(const std::string& path) {  // the zero label when none
    Label label;
    return label.getFromXattr(path, false) == 0 ? label : Label();
  }
  // The policy OID of a canonical path whose owning package has `pkgId`.
  static Id policyOid(const std::string& path, uint64_t pkgId) {
    Id oid;
    oid.pkg_ = pkgId;
    oid.file_ = getSM3HashLast64Bits(path.substr(path.rfind('/') + 1));
    oid.path_ = getSM3HashLast64Bits(path);
    return oid;
  }

  ScopedTempDir tmp_;
  std::string base_;  // canonical temporary directory
  std::string root_;  // base_/root: the files the tests label
  ScopedEnv stateDir_{"ZORV_LABELMGR_STATE_DIR", tmp_ / "state"};
  ScopedEnv dpkgDir_{"ZORV_LABELMGR_DPKG_DIR", tmp_ / "dpkg"};
};

// The records of one query or show call, copied out and freed.
struct Records {
  int count = 0;
  std::vector<std::string> names;
  std::vector<std::vector<uint64_t>> values;
};
template <typename Call>
Records collectRecords(Call call) {
  Records result;
  UserSetRecord* records = nullptr;
  result.count = call(&records);
  for (int i = 0; i < result.count; ++i) {
    result.names.push_back(records[i].path);
    result.values.push_back({records[i].value[0], records[i].value[1], records[i].value[2]});
  }
  if (result.count > 0) free(records);
  return result;
}

}  // namespace zorv_testing

#endif  // ZORV_LABELMGR_LABELMGR_TEST_ENV_H_

// A fixture for runs of the real tool against our own label manager library:
// its state and an empty package database in a temporary directory, named
// through this process's environment, which every run of the tool inherits.
#ifndef ZORV_TESTING_OWN_LIBRARY_TEST_H_
#define ZORV_TESTING_OWN_LIBRARY_TEST_H_

#include <limits.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace zorv_testing {

class OwnLibraryTest : public testing::Test {
 protected:
  std::string stateDir() const { return base_ + "/state"; }
  std::string database() const { return stateDir() + "/labelmgr.db"; }
  /// The canonical form of a path, which is what the library records and hashes.
  static std::string canonical(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
  }

  /// An empty package database under `base`; answers its directory.
  static std::string emptyPackageDatabase(const std::string& base) {
    writeTextFile(base + "/dpkg/status", "");
    makeDirs(base + "/dpkg/info");
    return base + "/dpkg";
  }

  ScopedTempDir tmp_;
  const std::string base_ = canonical(tmp_.path());

 private:
  ScopedEnv stateEnv_{"ZORV_LABELMGR_STATE_DIR", stateDir()};
  ScopedEnv dpkgEnv_{"ZORV_LABELMGR_DPKG_DIR", emptyPackageDatabase(base_)};
  ScopedEnv libraryEnv_{"LD_LIBRARY_PATH", std::nullopt};  // so RUNPATH finds our library
};

}  // namespace zorv_testing

#endif  // ZORV_TESTING_OWN_LIBRARY_TEST_H_

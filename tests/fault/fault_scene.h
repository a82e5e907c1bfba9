// A small tree, a fake package database and a state directory that the fault
// harness puts back exactly as they were before every run of the tool, and
// what a run leaves behind (every label and every user-set list), so that a
// run that met a fault can be compared with one that met none.
//
// Paths stay the same from run to run: labels are computed from them.
#ifndef ZORV_TESTS_FAULT_FAULT_SCENE_H_
#define ZORV_TESTS_FAULT_FAULT_SCENE_H_

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/child_process.h"
#include "testing/test_util.h"

namespace zorv_testing {

using RunResult = ChildResult;

/// Runs `argv` (argv[0] a path) with this process's environment, as
/// runChild() does.
RunResult runProgram(const std::vector<std::string>& argv, double timeoutSeconds = 60);

/// Everything a command can change: the label of each entry of the tree (its
/// path under the root, then the attribute's bytes in hex, "-" for none) and
/// the user-set lists of every field.
struct SceneState {
  std::map<std::string, std::string> labels;
  std::string lists;
  bool operator==(const SceneState& o) const { return labels == o.labels && lists == o.lists; }
  bool operator!=(const SceneState& o) const { return !(*this == o); }
};
/// The first difference between two states, for messages: "etc/c3: ab.. != -".
std::string firstDifference(const SceneState& got, const SceneState& want);

class FaultScene {
 public:
  /// Builds the tree (about sixty files, a symbolic link, some of them owned
  /// by the packages of the fake package database) and points the library at
  /// the scene's state and package database through this process's
  /// environment, with one worker.
  FaultScene();

  const std::string& root() const { return root_; }
  const std::string& dpkgDir() const { return dpkg_; }
  const std::string& stateDir() const { return state_; }

  /// Runs the tool with no fault; every run of the scene goes through here or
  /// through `toolArgv`.
  RunResult tool(const std::vector<std::string>& args) const;
  /// The command line that runs the tool with `args`, for wrapping in strace.
  std::vector<std::string> toolArgv(const std::vector<std::string>& args) const;

  /// Takes the tree, the package database and the state as they are now as
  /// the starting point that `reset` puts back.
  void keepAsStart();
  /// Puts back the starting point: files, modes, links and labels, and the
  /// state files (a listener's endpoints under state/listeners are left alone).
  void reset() const;

  /// Only the labels: cheap, read in this process.
  std::map<std::string, std::string> labels() const;
  /// Labels and the user-set lists, which costs five runs of the tool.
  SceneState state() const;

  /// Starts `-S` and waits until it listens; `stopListener` ends it.
  void startListener();
  void stopListener();
  ~FaultScene();

 private:
  // On a memory file system when there is one: the runs sync the state
  // database often, and the faults do not depend on the disk.
  ScopedEnv tmpdirEnv_;
  ScopedTempDir tmp_;
  std::string base_, root_, dpkg_, state_, start_;
  pid_t listener_ = -1;
  std::vector<std::unique_ptr<ScopedEnv>> env_;
};

}  // namespace zorv_testing

#endif  // ZORV_TESTS_FAULT_FAULT_SCENE_H_

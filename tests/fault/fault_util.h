// Helpers for the fault tests: a reading of every label in a tree that tells
// missing values from damaged ones, the state database's own consistency check and a small file
// system that can be filled.
#ifndef ZORV_TESTS_FAULT_FAULT_UTIL_H_
#define ZORV_TESTS_FAULT_FAULT_UTIL_H_

#include <string>
#include <vector>

#include "label/label.h"
#include "testing/own_library_test.h"

namespace zorv_fault {

enum class LabelState { kAbsent, kMalformed, kPresent };

/// Reads the "security.zorv" value of `path` itself (links not followed) and
/// decodes it into a zeroed `label`. kMalformed covers every value that is
/// there but does not decode, and a read that fails for any reason other than
/// a missing value.
LabelState readLabel(const std::string& path, Label* label);

/// "ok" when PRAGMA integrity_check passes on the database at `path`,
/// otherwise what the check (or the open) reported.
std::string integrityCheck(const std::string& path);

/// The entries under `root` (itself included), directories before their
/// contents, in a stable order.
std::vector<std::string> listTree(const std::string& root);

/// A tmpfs mounted on `dir` (created when missing) in a mount namespace of
/// this process's own, so that the mount goes away with the process even if
/// the test dies. The inode count bounds the space extended attributes may
/// take, which is what makes attribute writes fail with ENOSPC.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& dir, const std::string& options);
  ~SmallFileSystem();
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;

  /// Empty when mounted; otherwise why not.
  const std::string& error() const { return error_; }

  /// Uses up the attribute space with attributes on a filler file until even
  /// a one-byte value no longer fits. False (with a reason in error()) when
  /// this kernel's tmpfs sets no such bound.
  bool fillAttributeSpace();
  /// Uses up the data blocks with a filler file.
  bool fillBlocks();
  /// Removes the filler files, giving the space back.
  void release();

 private:
  std::string dir_;
  bool mounted_ = false;
  std::string error_;
};

}  // namespace zorv_fault

#endif  // ZORV_TESTS_FAULT_FAULT_UTIL_H_

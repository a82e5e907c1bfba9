// Paths that whole-tree labelling and the audit pass over, each with
// everything below it: one glob per line in the files of
// /etc/zorv/label/exclude.d. A glob is matched against the whole canonical
// path with the common wildcard code ('*' and '?' also match '/', "[...]" is
// a set); "#" starts a comment line, blank lines are ignored, and the blanks
// around a glob and a trailing '/' are dropped.
//
// A line is malformed, reported and ignored, when its glob is not absolute,
// has a "." or ".." component or an empty one ("//"), which no canonical path
// has, or opens a "[" set that is never closed.
#ifndef ZORV_LABELMGR_EXCLUDE_RULES_H_
#define ZORV_LABELMGR_EXCLUDE_RULES_H_

#include <string>
#include <vector>

namespace zorv::labelmgr {

constexpr char kExcludeDirectory[] = "/etc/zorv/label/exclude.d";

/// $ZORV_LABELMGR_EXCLUDE_DIR when set and non-empty, else kExcludeDirectory.
std::string excludeDirectory();

/// Loaded once, then only read: thread-safe.
class ExcludeRules {
 public:
  /// Reads every file of `dir` whose name does not begin with ".", in name
  /// order; a file that is a symbolic link cannot be read (it may lie in an
  /// image someone else owns). A missing directory holds no rules. Each malformed line is logged
  /// and appended to `problems` (when given) as "FILE:LINE: reason". False
  /// (logged) when the directory or one of its files cannot be read.
  bool load(const std::string& dir, std::vector<std::string>* problems);
  /// Adds one glob; false and `*reason` set when it is malformed.
  bool add(const std::string& glob, std::string* reason);

  bool empty() const { return globs_.empty(); }
  const std::vector<std::string>& globs() const { return globs_; }
  /// The glob that matches `canonicalPath` itself, or null.
  const std::string* matching(const std::string& canonicalPath) const;
  /// The glob that matches `canonicalPath` or a directory above it, or null.
  const std::string* covering(const std::string& canonicalPath) const;

 private:
  std::vector<std::string> globs_;
  std::vector<std::string> prefixes_;  // literal text in front of each glob's first wildcard
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_EXCLUDE_RULES_H_

// Our label manager library's audit interface, beside the framework's
// declaration header: what whole-tree labelling and restore would write, and
// where each value comes from, without writing anything (no attribute, no
// database row, no cache, no state directory).
//
// Numbers are given in the text the tool prints: identifiers as three
// 16-digit lower-case hexadecimal groups joined by "-", TIDs and inherit
// flags as 8 hexadecimal digits.
#ifndef ZORV_LABELMGR_ZORVLABELMGR_AUDIT_H_
#define ZORV_LABELMGR_ZORVLABELMGR_AUDIT_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zorv::audit {

struct AuditOptions {
  /// "" for the running system; else the directory holding "/" of a system
  /// image or chroot: its state database, dpkg database and exclude rules
  /// apply, paths are named as inside it and links resolve within it.
  std::string root;
  /// check: globs excluded beside those of the exclude directory.
  std::vector<std::string> excludes;
  /// check: trust the whole-tree labelling cache as a rerun does (an entry
  /// whose change time moved is read again); false reads every label.
  bool useCache = true;
  /// check: a progress line on standard error when it is a terminal.
  bool progress = false;
  /// Told of each malformed exclude line ("FILE:LINE: reason") and of each
  /// path that cannot be checked; may be empty.
  std::function<void(const std::string&)> warn;
};

struct FieldReport {
  std::string field;     // "oid", "sid", "tid", "inherit-flag", "creator-oid"
  std::string current;   // "none" when the file has no label, "invalid" when it cannot be read
  std::string expected;  // what restore and whole-tree labelling would write
  /// "default policy", "package NAME", "exact rule" or "pattern rule PATTERN".
  std::string source;
};

struct PathReport {
  std::string path;     // canonical, as inside the image
  std::string package;  // the package whose file list holds it, "" when none
  /// explain: the exclude glob that keeps whole-tree labelling away ("" when none).
  std::string excludedBy;
  /// explain: why the path could not be examined ("" when it could).
  std::string error;
  /// explain: OID, SID, TID and inherit flag; check: every field that differs.
  std::vector<FieldReport> fields;
};

/// Reports are handed over one at a time, in the caller's order for
/// explain and in no set order for check.
using ReportSink = std::function<void(const PathReport&)>;

/// Explains each of `paths` (followed through links as restore follows
/// them). 0 when every path was examined, 1 when some could not be (their
/// reports say why), -1 with `*error` set when the policy cannot be loaded.
int explainPaths(const AuditOptions& options, const std::vector<std::string>& paths,
                 const ReportSink& sink, std::string* error);

struct CheckCounts {
  uint64_t seen = 0;       // entries looked at
  uint64_t cached = 0;     // of them, passed over unchanged by the cache
  uint64_t differing = 0;  // of them, labelled otherwise than they would be
  uint64_t failed = 0;     // entries that could not be examined
  uint64_t excluded = 0;
};

/// Walks the trees under `paths` as whole-tree labelling does and reports
/// every entry whose label differs from what it would write. 0 when the
/// walks ran (`counts` says what they found), -1 with `*error` set when a
/// path or the policy cannot be used.
int checkTree(const AuditOptions& options, const std::vector<std::string>& paths,
              const ReportSink& sink, CheckCounts* counts, std::string* error);

}  // namespace zorv::audit

#endif  // ZORV_LABELMGR_ZORVLABELMGR_AUDIT_H_

// What explain and check share: the policy's inputs opened read-only for the
// running system or an image, and the reports made from computed labels.
#ifndef ZORV_LABELMGR_AUDIT_CONTEXT_H_
#define ZORV_LABELMGR_AUDIT_CONTEXT_H_

#include <memory>
#include <string>

#include "common/safe_path.h"
#include "label/label.h"
#include "labelmgr/exclude_rules.h"
#include "labelmgr/image_root.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/state_db.h"
#include "labelmgr/zorvlabelmgr_audit.h"

namespace zorv::labelmgr {

struct AuditContext {
  ImageRoot image;
  std::unique_ptr<StateDb> db;  // null while the system has no state yet
  ExcludeRules excludes;        // the exclude directory's and the options'

  /// Opens the image (if any), its state database read-only (never created)
  /// and its exclude rules. False with `*error` set on failure.
  bool open(const audit::AuditOptions& options, std::string* error);
};

/// The label held in `bytes`; false when there are none or they do not decode.
bool decodeLabel(const unsigned char* bytes, size_t size, Label* label);

/// Adds to `report` each field (of all when `onlyDiffering` is false) with its
/// current value (from `current`, null for no label; `invalid` when it could
/// not be decoded), expected value and source; sets the owning package.
void reportFields(const LabelPolicy& policy, const LabelEvaluation& wanted, const Label* current,
                  bool invalid, bool onlyDiffering, audit::PathReport* report);

/// Reads the label of the pinned `entry` and adds its fields to `report` as
/// reportFields() does (path and package included). False, with
/// `report->error` set, when the label cannot be read.
bool examineEntry(const LabelPolicy& policy, const PinnedEntry& entry, bool onlyDiffering,
                  audit::PathReport* report);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_AUDIT_CONTEXT_H_

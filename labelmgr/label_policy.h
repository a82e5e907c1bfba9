// The labels the library gives files: the policy (initial) label and the
// effective label, which is the policy label with the user-set rules applied.
// Restore, the field deletes and the whole-tree labelling all compute labels
// here, so the three never disagree.
//
// Policy label of a file:
//   OID  package: effective id of the installed package that alone lists the
//                 file in dpkg's file lists, 0 when none does;
//        file:    last 64 bits of the SM3 digest of the file's name;
//        path:    last 64 bits of the SM3 digest of its canonical path.
//   SID  the OID for a regular file with any execute bit, else zero.
//   TID, inherit flag and creator OID: zero.
// Effective label: each of OID, SID, TID and inherit flag taken from the rule
// that decides it (RuleSet::decidingRule) when there is one. evaluate()
// computes it together with where each field comes from; everything that
// labels or judges a label (restore, whole-tree labelling, the audit) goes
// through it.
#ifndef ZORV_LABELMGR_LABEL_POLICY_H_
#define ZORV_LABELMGR_LABEL_POLICY_H_

#include <sys/stat.h>

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "label/label.h"
#include "labelmgr/dpkg_db.h"
#include "labelmgr/image_root.h"
#include "labelmgr/package_ids.h"
#include "labelmgr/rule_set.h"
#include "labelmgr/state_db.h"

namespace zorv::labelmgr {

/// Where the value of one field of an effective label comes from.
enum class ValueSource : uint8_t {
  kDefault,      // the policy's own: path and name digests, or zero
  kPackage,      // as kDefault, with the package part of the owning package's id
  kExactRule,    // a user-set rule for this very path
  kPatternRule,  // a user-set rule for a pattern that covers the path
};

/// A computed effective label and the origin of each field. Cheap to make:
/// the rules are pointers into the policy, names are built only by
/// LabelPolicy::describe(). Valid while the policy that made it lives.
struct LabelEvaluation {
  Label label;
  ValueSource source[4] = {};    // indexed by Field
  const FileRule* rule[4] = {};  // the deciding rule of a rule source
  uint32_t owner = UINT32_MAX;   // index of the owning installed package, if any
};

/// Everything needed to label files, loaded once; afterwards every method is
/// const, queries nothing and is safe to call from many threads at once.
class LabelPolicy {
 public:
  /// Loads the dpkg database of dpkgDirectory() (installed packages and their
  /// file lists), the user-set package ids and every user-set file rule of
  /// `db`. `db` may be null when there is no state database yet (then no
  /// user-set values exist). Call it inside the caller's transaction when the
  /// result must match what that transaction sees. Null (logged) when the
  /// state database or any part of the dpkg database cannot be read: a
  /// label is never computed from a package database read in part.
  static std::unique_ptr<LabelPolicy> load(StateDb* db);
  /// As load(), but ready to label only `canonicalPaths`: the dpkg file
  /// lists are searched for these paths alone, which on a full system costs a
  /// fraction of indexing them all. Any other path is labelled as if no
  /// package owned it.
  /// With `image`, the dpkg database is that image's and paths are the ones
  /// inside it.
  static std::unique_ptr<LabelPolicy> loadFor(StateDb* db,
                                              const std::vector<std::string>& canonicalPaths,
                                              const ImageRoot* image = nullptr);
  /// As load(), but ready to label only paths inside the canonical directory
  /// `root`: package ownership is indexed for that subtree alone.
  static std::unique_ptr<LabelPolicy> loadUnder(StateDb* db, const std::string& root,
                                                const ImageRoot* image = nullptr);

  LabelPolicy(const LabelPolicy&) = delete;
  LabelPolicy& operator=(const LabelPolicy&) = delete;

  /// The policy label of the file at `canonicalPath` whose lstat() result is
  /// `st`. REQUIRES: `canonicalPath` is absolute and canonical.
  Label initLabel(const std::string& canonicalPath, const struct stat& st) const;
  /// initLabel() with the user-set rules applied.
  Label effectiveLabel(const std::string& canonicalPath, const struct stat& st) const {
    return evaluate(canonicalPath, st).label;
  }
  /// The effective label and where each of its fields comes from.
  LabelEvaluation evaluate(const std::string& canonicalPath, const struct stat& st) const;
  /// The origin of `field` in words: "default policy", "package NAME",
  /// "exact rule" or "pattern rule PATTERN".
  std::string describe(const LabelEvaluation& evaluation, Field field) const;

  /// Whether initLabel() gives a file of mode `a` the same label as one of
  /// mode `b` at the same path.
  static bool sameInitLabel(mode_t a, mode_t b) { return carriesSid(a) == carriesSid(b); }

  /// The policy OID alone (no stat needed): what initLabel() puts in oid_.
  Id policyOid(const std::string& canonicalPath) const;

  const PackageIds& packageIds() const { return packageIds_; }
  const RuleSet& rules() const { return rules_; }

 private:
  Id policyOid(const std::string& canonicalPath, uint32_t* owner) const;
  static bool carriesSid(mode_t mode) {
    return S_ISREG(mode) && (mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
  }
  explicit LabelPolicy(std::vector<FileRule> rules) : rules_(std::move(rules)) {}
  static std::unique_ptr<LabelPolicy> load(StateDb* db, const std::unordered_set<std::string>* only,
                                           const std::string* under, const ImageRoot* image);

  PackageIds packageIds_;
  OwnershipIndex owners_;
  RuleSet rules_;
};

/// Reads `field` of `label` into value[0..2] (TID and inherit flag use
/// value[0] only, the others are set to zero).
void getLabelField(const Label& label, Field field, uint64_t value[3]);
/// Sets `field` of `label` from value[0..2] (TID and inherit flag take the low
/// 32 bits of value[0]).
void setLabelField(Label& label, Field field, const uint64_t value[3]);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_LABEL_POLICY_H_

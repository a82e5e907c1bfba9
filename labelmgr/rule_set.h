// The user-set file rules, indexed for answering "which rule decides this
// field of this path" without a database query.
#ifndef ZORV_LABELMGR_RULE_SET_H_
#define ZORV_LABELMGR_RULE_SET_H_

#include <string>
#include <unordered_map>
#include <vector>

#include "labelmgr/user_set_store.h"

namespace zorv::labelmgr {

/// Built once from the rules, then only read: thread-safe.
class RuleSet {
 public:
  RuleSet() = default;
  explicit RuleSet(std::vector<FileRule> rules);
  RuleSet(const RuleSet&) = delete;  // holds pointers into its own rules
  RuleSet& operator=(const RuleSet&) = delete;

  /// The rule that decides `field` of `canonicalPath`: the path's own exact
  /// rule, else the latest-set pattern rule that covers it; null when none.
  const FileRule* decidingRule(Field field, const std::string& canonicalPath) const;

  /// Every rule that applies to `field` of `canonicalPath`, the deciding one
  /// first: the exact rule, then the covering patterns from the latest set.
  std::vector<const FileRule*> applicableRules(Field field, const std::string& canonicalPath) const;

  /// All rules, oldest first.
  const std::vector<FileRule>& all() const { return rules_; }

 private:
  struct PatternRule {
    std::string prefix;  // literal text every covered path begins with
    const FileRule* rule;
  };
  struct FieldRules {
    std::unordered_map<std::string, const FileRule*> exact;
    std::vector<PatternRule> patterns;  // latest set first
  };

  const FieldRules& rulesOf(Field field) const { return byField_[static_cast<int>(field)]; }

  std::vector<FileRule> rules_;
  FieldRules byField_[4];
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_RULE_SET_H_

#include "labelmgr/rule_set.h"

#include <algorithm>

#include "labelmgr/path_gate.h"

namespace zorv::labelmgr {

namespace {

bool coveredBy(const std::string& prefix, const std::string& pattern, const std::string& path) {
  return path.compare(0, prefix.size(), prefix) == 0 && patternCovers(pattern, path);
}

}  // namespace

RuleSet::RuleSet(std::vector<FileRule> rules) : rules_(std::move(rules)) {
  for (const FileRule& rule : rules_) {
    FieldRules& field = byField_[static_cast<int>(rule.field)];
    if (rule.isPattern)
      field.patterns.push_back({literalPrefix(rule.target), &rule});
    else
      field.exact[rule.target] = &rule;
  }
  // Rules come oldest first; the latest-set pattern must be tried first.
  for (FieldRules& field : byField_) {
    std::vector<PatternRule>& patterns = field.patterns;
    std::stable_sort(
        patterns.begin(), patterns.end(),
        [](const PatternRule& a, const PatternRule& b) { return a.rule->seq > b.rule->seq; });
  }
}

const FileRule* RuleSet::decidingRule(Field field, const std::string& canonicalPath) const {
  const FieldRules& rules = rulesOf(field);
  auto exact = rules.exact.find(canonicalPath);
  if (exact != rules.exact.end()) return exact->second;
  for (const PatternRule& pattern : rules.patterns)
    if (coveredBy(pattern.prefix, pattern.rule->target, canonicalPath)) return pattern.rule;
  return nullptr;
}

std::vector<const FileRule*> RuleSet::applicableRules(Field field,
                                                      const std::string& canonicalPath) const {
  std::vector<const FileRule*> found;
  const FieldRules& rules = rulesOf(field);
  auto exact = rules.exact.find(canonicalPath);
  if (exact != rules.exact.end()) found.push_back(exact->second);
  for (const PatternRule& pattern : rules.patterns)
    if (coveredBy(pattern.prefix, pattern.rule->target, canonicalPath))
      found.push_back(pattern.rule);
  return found;
}

}  // namespace zorv::labelmgr

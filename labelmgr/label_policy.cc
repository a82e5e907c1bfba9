#include "labelmgr/label_policy.h"

#include "labelmgr/path_digest.h"

namespace zorv::labelmgr {

std::unique_ptr<LabelPolicy> LabelPolicy::load(StateDb* db) { return load(db, nullptr); }

std::unique_ptr<LabelPolicy> LabelPolicy::loadFor(StateDb* db,
                                                  const std::vector<std::string>& canonicalPaths) {
  std::unordered_set<std::string> only(canonicalPaths.begin(), canonicalPaths.end());
  return load(db, &only);
}

std::unique_ptr<LabelPolicy> LabelPolicy::loadUnder(StateDb* db, const std::string& root) {
  return load(db, nullptr, &root);
}

std::unique_ptr<LabelPolicy> LabelPolicy::load(StateDb* db,
                                               const std::unordered_set<std::string>* only,
                                               const std::string* under) {
  std::vector<FileRule> rules;
  if (db != nullptr && !loadFileRules(*db, std::nullopt, &rules)) return nullptr;
  std::unique_ptr<LabelPolicy> policy(new LabelPolicy(std::move(rules)));
  std::string dpkgDir = dpkgDirectory();
  if (!policy->packageIds_.load(db, dpkgDir)) return nullptr;
  policy->owners_.load(dpkgDir, policy->packageIds_.installed(), only, under);
  return policy;
}

Id LabelPolicy::policyOid(const std::string& canonicalPath) const {
  Id oid;
  uint32_t owner = owners_.ownerOf(canonicalPath);
  if (owner != OwnershipIndex::kNoOwner) oid.pkg_ = packageIds_.idOfInstalled(owner);
  size_t slash = canonicalPath.rfind('/');
  std::string name = canonicalPath == "/" || slash == std::string::npos
                         ? canonicalPath
                         : canonicalPath.substr(slash + 1);
  // The same values as getSM3HashLast64Bits(), at a fraction of its cost per
  // call: whole-tree labelling computes two per file.
  oid.file_ = sm3Last64Bits(name);
  oid.path_ = sm3Last64Bits(canonicalPath);
  return oid;
}

Label LabelPolicy::initLabel(const std::string& canonicalPath, const struct stat& st) const {
  Label label;
  label.oid_ = policyOid(canonicalPath);
  if (carriesSid(st.st_mode)) label.sid_ = label.oid_;
  return label;
}

Label LabelPolicy::effectiveLabel(const std::string& canonicalPath, const struct stat& st) const {
  Label label = initLabel(canonicalPath, st);
  for (Field field : {Field::kOid, Field::kSid, Field::kTid, Field::kInheritFlag}) {
    if (const FileRule* rule = rules_.decidingRule(field, canonicalPath))
      setLabelField(label, field, rule->value);
  }
  return label;
}

void getLabelField(const Label& label, Field field, uint64_t value[3]) {
  value[0] = value[1] = value[2] = 0;
  switch (field) {
    case Field::kOid:
      value[0] = label.oid_.pkg_;
      value[1] = label.oid_.file_;
      value[2] = label.oid_.path_;
      break;
    case Field::kSid:
      value[0] = label.sid_.pkg_;
      value[1] = label.sid_.file_;
      value[2] = label.sid_.path_;
      break;
    case Field::kTid:
      value[0] = label.tid_;
      break;
    case Field::kInheritFlag:
      value[0] = label.inheritFlag_;
      break;
  }
}

void setLabelField(Label& label, Field field, const uint64_t value[3]) {
  switch (field) {
    case Field::kOid:
      label.oid_.pkg_ = value[0];
      label.oid_.file_ = value[1];
      label.oid_.path_ = value[2];
      break;
    case Field::kSid:
      label.sid_.pkg_ = value[0];
      label.sid_.file_ = value[1];
      label.sid_.path_ = value[2];
      break;
    case Field::kTid:
      label.tid_ = static_cast<uint32_t>(value[0]);
      break;
    case Field::kInheritFlag:
      label.inheritFlag_ = static_cast<uint32_t>(value[0]);
      break;
  }
}

}  // namespace zorv::labelmgr

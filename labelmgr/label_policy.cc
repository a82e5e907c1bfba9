#include "labelmgr/label_policy.h"

#include <cstring>
#include <string_view>

#include "labelmgr/path_digest.h"

namespace zorv::labelmgr {

std::unique_ptr<LabelPolicy> LabelPolicy::load(StateDb* db) {
  return load(db, nullptr, nullptr, nullptr);
}

std::unique_ptr<LabelPolicy> LabelPolicy::loadFor(StateDb* db,
                                                  const std::vector<std::string>& canonicalPaths,
                                                  const ImageRoot* image) {
  std::unordered_set<std::string> only(canonicalPaths.begin(), canonicalPaths.end());
  return load(db, &only, nullptr, image);
}

std::unique_ptr<LabelPolicy> LabelPolicy::loadUnder(StateDb* db, const std::string& root,
                                                    const ImageRoot* image) {
  return load(db, nullptr, &root, image);
}

std::unique_ptr<LabelPolicy> LabelPolicy::load(StateDb* db,
                                               const std::unordered_set<std::string>* only,
                                               const std::string* under, const ImageRoot* image) {
  std::vector<FileRule> rules;
  if (db != nullptr && !loadFileRules(*db, std::nullopt, &rules)) return nullptr;
  std::unique_ptr<LabelPolicy> policy(new LabelPolicy(std::move(rules)));
  std::string dpkgDir = image != nullptr ? image->dpkgDirectory() : dpkgDirectory();
  if (!policy->packageIds_.load(db, dpkgDir)) return nullptr;
  if (!policy->owners_.load(dpkgDir, policy->packageIds_.installed(), only, under, image))
    return nullptr;
  return policy;
}

namespace {

// The digest of a file's last name, remembered per thread: names repeat
// across a tree (README, Makefile, __init__.py, copyright in every package's
// doc directory), and each digest costs as much as the rest of a file's
// label. Direct-mapped, so a lookup is one hash of the name and one compare.
class NameDigests {
 public:
  uint64_t of(std::string_view name) {
    if (name.size() > kLongestName) return sm3Last64Bits(name);
    uint64_t hash = 0xcbf29ce484222325ull;
    for (char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ull;
    Slot& slot = slots_[(hash ^ hash >> 32) & (kSlots - 1)];
    if (slot.used && slot.size == name.size() &&
        std::memcmp(slot.name, name.data(), name.size()) == 0)
      return slot.digest;
    slot.digest = sm3Last64Bits(name);
    slot.size = static_cast<uint8_t>(name.size());
    std::memcpy(slot.name, name.data(), name.size());
    slot.used = true;
    return slot.digest;
  }

 private:
  static constexpr size_t kLongestName = 46;
  static constexpr size_t kSlots = 4096;
  struct Slot {
    uint64_t digest;
    uint8_t size;
    bool used;
    char name[kLongestName];
  };
  Slot slots_[kSlots] = {};
};

}  // namespace

Id LabelPolicy::policyOid(const std::string& canonicalPath) const {
  uint32_t owner;
  return policyOid(canonicalPath, &owner);
}

Id LabelPolicy::policyOid(const std::string& canonicalPath, uint32_t* owner) const {
  Id oid;
  *owner = owners_.ownerOf(canonicalPath);
  if (*owner != OwnershipIndex::kNoOwner) oid.pkg_ = packageIds_.idOfInstalled(*owner);
  size_t slash = canonicalPath.rfind('/');
  std::string_view name = canonicalPath == "/" || slash == std::string::npos
                              ? std::string_view(canonicalPath)
                              : std::string_view(canonicalPath).substr(slash + 1);
  // The same values as getSM3HashLast64Bits(), at a fraction of its cost per
  // call: whole-tree labelling computes two per file.
  thread_local std::unique_ptr<NameDigests> names = std::make_unique<NameDigests>();
  oid.file_ = names->of(name);
  oid.path_ = sm3Last64Bits(canonicalPath);
  return oid;
}

Label LabelPolicy::initLabel(const std::string& canonicalPath, const struct stat& st) const {
  Label label;
  label.oid_ = policyOid(canonicalPath);
  if (carriesSid(st.st_mode)) label.sid_ = label.oid_;
  return label;
}

LabelEvaluation LabelPolicy::evaluate(const std::string& canonicalPath,
                                      const struct stat& st) const {
  LabelEvaluation result;
  Label& label = result.label;
  label.oid_ = policyOid(canonicalPath, &result.owner);
  bool sid = carriesSid(st.st_mode);
  if (sid) label.sid_ = label.oid_;
  if (result.owner != OwnershipIndex::kNoOwner) {
    result.source[static_cast<int>(Field::kOid)] = ValueSource::kPackage;
    if (sid) result.source[static_cast<int>(Field::kSid)] = ValueSource::kPackage;
  }
  if (rules_.all().empty()) return result;  // spares hashing the path once per field
  for (Field field : {Field::kOid, Field::kSid, Field::kTid, Field::kInheritFlag}) {
    if (const FileRule* rule = rules_.decidingRule(field, canonicalPath)) {
      setLabelField(label, field, rule->value);
      int index = static_cast<int>(field);
      result.source[index] = rule->isPattern ? ValueSource::kPatternRule : ValueSource::kExactRule;
      result.rule[index] = rule;
    }
  }
  return result;
}

std::string LabelPolicy::describe(const LabelEvaluation& evaluation, Field field) const {
  int index = static_cast<int>(field);
  switch (evaluation.source[index]) {
    case ValueSource::kDefault:
      break;
    case ValueSource::kPackage:
      return "package " + packageIds_.installed()[evaluation.owner];
    case ValueSource::kExactRule:
      return "exact rule";
    case ValueSource::kPatternRule:
      return "pattern rule " + evaluation.rule[index]->target;
  }
  return "default policy";
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

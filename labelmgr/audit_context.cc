#include "labelmgr/audit_context.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <exception>

#include "label/label_attr.h"
#include "labelmgr/tree_item.h"

namespace zorv::labelmgr {

namespace {

std::string fieldText(const Label& label, Field field) {
  uint64_t value[3];
  getLabelField(label, field, value);
  char text[64];
  if (field == Field::kOid || field == Field::kSid) {
    std::snprintf(text, sizeof text, "%016" PRIx64 "-%016" PRIx64 "-%016" PRIx64, value[0],
                  value[1], value[2]);
  } else {
    std::snprintf(text, sizeof text, "%08" PRIx32, static_cast<uint32_t>(value[0]));
  }
  return text;
}

}  // namespace

bool AuditContext::open(const audit::AuditOptions& options, std::string* error) {
  if (!options.root.empty() && !image.open(options.root, error)) return false;
  std::string stateDir = image.stateDirectory();
  bool absent = false;
  db = StateDb::open(StateDb::OpenMode::kReadOnly, &absent, &stateDir);
  if (db == nullptr && !absent) {
    *error = "cannot read the state database in " + stateDir + " (see the log)";
    return false;
  }
  std::vector<std::string> problems;
  if (!excludes.load(image.excludeDirectory(), &problems)) {
    *error = "cannot read the exclude rules in " + image.excludeDirectory();
    return false;
  }
  for (const std::string& glob : options.excludes) {
    std::string reason;
    if (!excludes.add(glob, &reason)) {
      *error = "bad exclude glob " + glob + ": " + reason;
      return false;
    }
  }
  if (options.warn) {
    for (const std::string& problem : problems) options.warn("malformed exclude rule: " + problem);
  }
  return true;
}

bool decodeLabel(const unsigned char* bytes, size_t size, Label* label) {
  if (bytes == nullptr) return false;
  try {
    *label = Label().deserializeFromBuffer(bytes, size);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void reportFields(const LabelPolicy& policy, const LabelEvaluation& wanted, const Label* current,
                  bool invalid, bool onlyDiffering, audit::PathReport* report) {
  if (wanted.owner != OwnershipIndex::kNoOwner)
    report->package = policy.packageIds().installed()[wanted.owner];
  const char* absent = invalid ? "invalid" : "none";
  for (Field field : {Field::kOid, Field::kSid, Field::kTid, Field::kInheritFlag}) {
    std::string expected = fieldText(wanted.label, field);
    std::string now = current != nullptr ? fieldText(*current, field) : absent;
    if (onlyDiffering && now == expected) continue;
    report->fields.push_back(
        {fieldName(field), std::move(now), std::move(expected), policy.describe(wanted, field)});
  }
  // Nothing sets a creator OID: a label carrying one differs from what a
  // rerun would write.
  if (onlyDiffering && current != nullptr &&
      (current->creatorOid_.pkg_ | current->creatorOid_.file_ | current->creatorOid_.path_) != 0) {
    report->fields.push_back(
        {"creator-oid", current->creatorOid_.toString(), Id().toString(), "default policy"});
  }
}

bool examineEntry(const LabelPolicy& policy, const PinnedEntry& entry, bool onlyDiffering,
                  audit::PathReport* report) {
  report->path = entry.path;
  unsigned char bytes[kLabelBufferBytes];
  ssize_t size = readLabelAt(entry.dir.get(), entry.name.c_str(), bytes, sizeof bytes);
  if (size < 0 && size != -ENODATA) {
    report->error =
        "cannot read the label of " + entry.path + ": " + std::strerror(static_cast<int>(-size));
    return false;
  }
  Label current;
  bool decoded = size >= 0 && decodeLabel(bytes, static_cast<size_t>(size), &current);
  reportFields(policy, policy.evaluate(entry.path, entry.st), decoded ? &current : nullptr,
               size >= 0, onlyDiffering, report);
  return true;
}

}  // namespace zorv::labelmgr

// explainPaths: each named file's label now, the one restore would give it,
// and where each value of that one comes from.
#include "common/safe_path.h"
#include "labelmgr/audit_context.h"
#include "labelmgr/zorvlabelmgr_audit.h"

namespace zorv::audit {

int explainPaths(const AuditOptions& options, const std::vector<std::string>& paths,
                 const ReportSink& sink, std::string* error) {
  labelmgr::AuditContext context;
  if (!context.open(options, error)) return -1;
  // Every path is pinned first, so that the dpkg file lists are searched for
  // these paths alone.
  std::vector<PinnedEntry> entries(paths.size());
  std::vector<std::string> problems(paths.size());
  std::vector<std::string> canonical;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (context.image.resolve(paths[i], true, &entries[i], &problems[i]) == 0)
      canonical.push_back(entries[i].path);
  }
  std::unique_ptr<labelmgr::LabelPolicy> policy =
      labelmgr::LabelPolicy::loadFor(context.db.get(), canonical, &context.image);
  if (policy == nullptr) {
    *error = "cannot load the label policy (see the log)";
    return -1;
  }
  int status = 0;
  for (size_t i = 0; i < paths.size(); ++i) {
    PathReport report;
    if (!problems[i].empty()) {
      report.path = paths[i];
      report.error = problems[i];
      status = 1;
      sink(report);
      continue;
    }
    const PinnedEntry& entry = entries[i];
    if (const std::string* glob = context.excludes.covering(entry.path)) report.excludedBy = *glob;
    if (!labelmgr::examineEntry(*policy, entry, false, &report)) status = 1;
    sink(report);
  }
  return status;
}

}  // namespace zorv::audit

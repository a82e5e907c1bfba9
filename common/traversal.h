// Breadth-first directory walks and path ordering.
#ifndef ZORV_COMMON_TRAVERSAL_H_
#define ZORV_COMMON_TRAVERSAL_H_

#include <string>
#include <vector>

#include "log/export.h"

/// Appends to `out` every readable directory under `root` (breadth first),
/// each followed by its regular files and symbolic links in readdir order.
/// Links are never followed; at most 100000 directories are read. Returns 0
/// when the walk ran (also when the cap cut it short), -1 when the root is
/// unusable. Every problem is logged at error level; below the root the
/// entry is skipped and the walk goes on. Wide levels are read on up to three
/// helper threads, all joined before it returns; only the calling thread logs
/// or touches `out`.
ZORV_EXPORT int traverseDirectory(const std::string& root, std::vector<std::string>& out);
/// Expands entries whose last component holds '*' and sorts everything with
/// comparePaths. Duplicates stay. Lets a filesystem_error of the expansion
/// through.
ZORV_EXPORT std::vector<std::string> sortPaths(std::vector<std::string> paths);

#endif  // ZORV_COMMON_TRAVERSAL_H_

// Whole-tree labelling's view of the mount table: which mount points lie
// inside the tree, and where the mount holding a path begins.
#ifndef ZORV_LABELMGR_MOUNT_POINTS_H_
#define ZORV_LABELMGR_MOUNT_POINTS_H_

#include <string>
#include <string_view>
#include <unordered_set>

#include "common/entry_stat.h"

namespace zorv::labelmgr {

/// Undoes the octal escapes (\040 for a blank and so on) of /proc mount
/// tables.
std::string unescapeMountField(std::string_view field);

/// The mount points strictly inside the canonical directory `root`, from
/// this process's mount table. False when the table cannot be read.
bool mountPointsUnder(const std::string& root, std::unordered_set<std::string>* points);

/// The mount point of the file system holding `path` (stat'ed as `stat`),
/// for a progress line.
std::string mountPointOf(const std::string& path, const EntryStat& stat);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_MOUNT_POINTS_H_

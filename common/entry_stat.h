// Internal to the framework's libraries (not installed): an entry's status
// with the id of the mount it lies on.
#ifndef ZORV_COMMON_ENTRY_STAT_H_
#define ZORV_COMMON_ENTRY_STAT_H_

#include <sys/stat.h>

#include <cstdint>

namespace zorv {

struct EntryStat {
  struct stat st {};
  uint64_t mountId = 0;
  bool hasMountId = false;  // the kernel reported the mount id

  /// On the same mount as `other`: the same device and, where both know it,
  /// the same mount id, which tells bind mounts of one device apart.
  bool sameMount(const EntryStat& other) const {
    if (st.st_dev != other.st.st_dev) return false;
    return !(hasMountId && other.hasMountId && mountId != other.mountId);
  }
};

/// statx() of `name` relative to `dirfd` (flags as for fstatat, plus
/// AT_NO_AUTOMOUNT), filling the fields of a struct stat. 0, or -1 with errno.
int statEntry(int dirfd, const char* name, int flags, EntryStat* out);

}  // namespace zorv

#endif  // ZORV_COMMON_ENTRY_STAT_H_

#include "common/entry_stat.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace zorv {

int statEntry(int dirfd, const char* name, int flags, EntryStat* out) {
  struct statx sx;
  if (::statx(dirfd, name, flags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_MNT_ID, &sx) != 0)
    return -1;
  struct stat& st = out->st;
  st = {};
  st.st_dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  st.st_ino = sx.stx_ino;
  st.st_mode = sx.stx_mode;
  st.st_nlink = sx.stx_nlink;
  st.st_uid = sx.stx_uid;
  st.st_gid = sx.stx_gid;
  st.st_rdev = makedev(sx.stx_rdev_major, sx.stx_rdev_minor);
  st.st_size = static_cast<off_t>(sx.stx_size);
  st.st_blksize = sx.stx_blksize;
  st.st_blocks = static_cast<blkcnt_t>(sx.stx_blocks);
  st.st_atim = {sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec};
  st.st_mtim = {sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec};
  st.st_ctim = {sx.stx_ctime.tv_sec, sx.stx_ctime.tv_nsec};
  out->hasMountId = (sx.stx_mask & STATX_MNT_ID) != 0;
  out->mountId = sx.stx_mnt_id;
  return 0;
}

}  // namespace zorv

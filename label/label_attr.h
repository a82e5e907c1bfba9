// Internal to the framework's libraries (not installed): the label's extended
// attribute, and the one place that reads, writes and removes it, above all on
// entries that a walk or a pattern found.
//
// Every call takes the directory the entry was found in (a descriptor) and the
// entry's own name: one path component, or "." for that directory itself. It
// never resolves more than that name and never follows a symbolic link, so an
// entry swapped for a link after it was found is not written through.
//
// The kernel's *xattrat calls (Linux 6.13) do this directly. Without them
// (ENOSYS, or a sandbox that refuses them), a thread that called
// usePrivateWorkingDirectory() moves its own working directory into the
// directory and uses the l*xattr calls on the bare name; any other thread pins
// the entry with an O_PATH | O_NOFOLLOW descriptor and reaches it through
// /proc/self/fd, which needs /proc. Thread-safe.
#ifndef ZORV_LABEL_LABEL_ATTR_H_
#define ZORV_LABEL_LABEL_ATTR_H_

#include <sys/types.h>

#include <cstddef>

namespace zorv {

/// The extended attribute that holds a file's label.
inline constexpr char kLabelAttribute[] = "security.zorv";

/// Reads the label attribute of `name` in `dirfd` into `value`. The value's
/// size, or -errno (-ENODATA: no label; -ERANGE: `size` too small).
ssize_t readLabelAt(int dirfd, const char* name, void* value, size_t size);
/// Writes it; `flags` as for setxattr (XATTR_CREATE, XATTR_REPLACE). 0 or -errno.
int writeLabelAt(int dirfd, const char* name, const void* value, size_t size, int flags);
/// Removes it. 0 or -errno (-ENODATA: there was none).
int removeLabelAt(int dirfd, const char* name);

/// The same by path, following a last symbolic link when `follow`: only for
/// the calls whose contract takes a path (Label::getFromXattr and
/// setToXattr, the tool's whole-label commands), which resolve it afresh.
ssize_t readLabelAtPath(const char* path, bool follow, void* value, size_t size);
int writeLabelAtPath(const char* path, bool follow, const void* value, size_t size, int flags);
int removeLabelAtPath(const char* path, bool follow);

/// `dirfd` may be AT_FDCWD: the entry is then looked up in the working
/// directory, which a thread that called usePrivateWorkingDirectory() may
/// have moved into a pinned directory itself (once per directory, instead of
/// once per call).
///
/// Gives the calling thread a working directory of its own (unshare
/// CLONE_FS), so that the fallback may move it freely: for worker threads
/// that the library starts itself. False (errno set) when refused.
bool usePrivateWorkingDirectory();

/// Whether the *xattrat calls are in use in this process (after the first
/// call above has probed for them).
bool usingXattrAt();

}  // namespace zorv

#endif  // ZORV_LABEL_LABEL_ATTR_H_

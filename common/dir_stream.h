// Internal to the framework's libraries (not installed): the one reader of a
// directory's entries, through its descriptor.
#ifndef ZORV_COMMON_DIR_STREAM_H_
#define ZORV_COMMON_DIR_STREAM_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "common/unique_fd.h"

namespace zorv {

/// Lists an open directory with getdents64 into one buffer, without the
/// allocation and extra calls of a DIR stream. The descriptor stays usable
/// for *at() calls on the entries. Not thread-safe.
class DirStream {
 public:
  struct Entry {
    const char* name;    // valid until the next call of next()
    unsigned char type;  // DT_* as the file system reports it (DT_UNKNOWN possible)
  };

  /// Owns `dir` (opened with O_RDONLY | O_DIRECTORY) and a buffer of its own.
  explicit DirStream(UniqueFd dir, size_t bufferBytes = 32 * 1024);
  /// Borrows `fd` and `buffer` (not empty), which must outlive the stream:
  /// for walks that share one buffer among many directories.
  DirStream(int fd, std::vector<char>& buffer);
  DirStream(const DirStream&) = delete;
  DirStream& operator=(const DirStream&) = delete;

  /// The next entry other than "." and ".."; false at the end or when
  /// reading failed (then error() is the errno).
  bool next(Entry* entry);
  int error() const { return error_; }
  int fd() const { return fd_; }

 private:
  UniqueFd owned_;
  int fd_;
  // Not zero-filled: a walk makes one stream per directory, and the kernel
  // writes every byte that is read back.
  std::unique_ptr<char[]> ownBuffer_;
  char* buffer_;
  size_t bufferBytes_;
  size_t offset_ = 0;
  size_t filled_ = 0;
  bool ended_ = false;
  int error_ = 0;
};

}  // namespace zorv

#endif  // ZORV_COMMON_DIR_STREAM_H_

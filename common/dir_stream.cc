#include "common/dir_stream.h"

#include <dirent.h>

#include <cerrno>
#include <utility>

namespace zorv {

DirStream::DirStream(UniqueFd dir, size_t bufferBytes)
    : owned_(std::move(dir)),
      fd_(owned_.get()),
      ownBuffer_(new char[bufferBytes]),
      buffer_(ownBuffer_.get()),
      bufferBytes_(bufferBytes) {}

DirStream::DirStream(int fd, std::vector<char>& buffer)
    : fd_(fd), buffer_(buffer.data()), bufferBytes_(buffer.size()) {}

bool DirStream::next(Entry* entry) {
  for (;;) {
    if (offset_ >= filled_) {
      if (ended_ || error_ != 0) return false;
      ssize_t size = ::getdents64(fd_, buffer_, bufferBytes_);
      if (size < 0) {
        error_ = errno;
        return false;
      }
      if (size == 0) {
        ended_ = true;
        return false;
      }
      offset_ = 0;
      filled_ = static_cast<size_t>(size);
    }
    auto* raw = reinterpret_cast<const struct dirent64*>(buffer_ + offset_);
    offset_ += raw->d_reclen;
    const char* name = raw->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    entry->name = name;
    entry->type = raw->d_type;
    return true;
  }
}

}  // namespace zorv

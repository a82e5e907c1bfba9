// Internal to the framework's libraries (not installed): the one owner of a
// file descriptor.
#ifndef ZORV_COMMON_UNIQUE_FD_H_
#define ZORV_COMMON_UNIQUE_FD_H_

#include <unistd.h>

#include <cerrno>

namespace zorv {

/// Closes its descriptor when it goes away; movable, not copyable. Closing
/// keeps errno as it was, so that a failure reported just before the owner
/// goes out of scope still reads its own cause.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace zorv

#endif  // ZORV_COMMON_UNIQUE_FD_H_

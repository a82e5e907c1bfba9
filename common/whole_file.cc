#include "common/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/unique_fd.h"

namespace zorv {

namespace {

// Room for a file that reports no size (/proc) before the buffer first grows.
constexpr size_t kUnsizedRoom = 4096;

}  // namespace

bool readWholeFile(const char* path, std::string* content, bool followLastLink) {
  content->clear();
  UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC | (followLastLink ? 0 : O_NOFOLLOW)));
  if (!fd) return false;
  struct stat st;
  // One byte more than the size shows the end without growing the buffer.
  bool sized = ::fstat(fd.get(), &st) == 0 && st.st_size > 0;
  content->resize(sized ? static_cast<size_t>(st.st_size) + 1 : kUnsizedRoom);
  size_t used = 0;
  for (;;) {
    if (used == content->size()) content->resize(2 * content->size());
    ssize_t n = ::read(fd.get(), content->data() + used, content->size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      content->clear();
      return false;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  content->resize(used);
  return true;
}

}  // namespace zorv

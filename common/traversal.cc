#include "common/traversal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <string_view>
#include <unordered_set>

#include "common/path_resolve.h"
#include "log/logger.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMaxDirectories = 100000;
constexpr size_t kMaxRootBytes = 4096;
constexpr size_t kEntryBufferBytes = 64 * 1024;

// Owns the descriptor of an open directory. Entries are read with
// getdents64 into one buffer per walk rather than through a DIR stream: a
// stream costs an allocation and extra system calls for every directory.
class DirFd {
 public:
  DirFd() = default;
  ~DirFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  DirFd(const DirFd&) = delete;
  DirFd& operator=(const DirFd&) = delete;

  /// Opens `path` as a directory; `followLink` false refuses a symbolic link
  /// in the last component. On failure returns false with errno set.
  bool open(const char* path, bool followLink) {
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    if (!followLink) flags |= O_NOFOLLOW;
    fd_ = ::open(path, flags);
    return fd_ >= 0;
  }
  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Drops one trailing slash (not from "/" itself), then collapses every run of
// slashes, so that child paths are built from one spelling of the root.
std::string normalizeRoot(const std::string& root) {
  size_t end = root.size();
  if (end > 1 && root[end - 1] == '/') --end;
  std::string tidy;
  tidy.reserve(end);
  for (size_t i = 0; i < end; ++i) {
    if (root[i] == '/' && !tidy.empty() && tidy.back() == '/') continue;
    tidy += root[i];
  }
  return tidy;
}

}  // namespace

int traverseDirectory(const std::string& rootArg, std::vector<std::string>& out) {
  const std::string root = normalizeRoot(rootArg);
  if (root.size() > kMaxRootBytes) {
    ZLOG_ERROR("Path too long: %s", root.c_str());
    return -1;
  }
  if (access(root.c_str(), F_OK) != 0) {
    ZLOG_ERROR("Directory does not exist: %s, error: %s", root.c_str(), strerror(errno));
    return -1;
  }
  struct stat st {};
  if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    ZLOG_ERROR("Not a directory: %s", root.c_str());
    return -1;
  }

  // Every queued directory stays in the deque until the walk ends (the front
  // is an index, nothing is popped), so the set can hold views into it and no
  // directory text is stored twice.
  std::deque<std::string> queue;
  std::unordered_set<std::string_view> queued;
  queue.push_back(root);
  queued.insert(queue.back());
  size_t front = 0;
  size_t opened = 0;
  const std::unique_ptr<char[]> buffer(new char[kEntryBufferBytes]);

  while (front < queue.size()) {
    const bool isRoot = front == 0;
    const std::string& dir = queue[front++];
    if (dir.compare(0, root.size(), root) != 0) {
      ZLOG_ERROR("Potential path traversal detected: %s", dir.c_str());
      continue;
    }
    // Below the root a directory was seen by lstat as a real directory; if it
    // has been swapped for a link since, refuse it rather than walk elsewhere.
    DirFd handle;
    if (!handle.open(dir.c_str(), isRoot)) {
      ZLOG_ERROR("Failed to open directory: %s, error: %s", dir.c_str(), strerror(errno));
      continue;
    }
    out.push_back(dir);

    const int fd = handle.get();
    const bool endsWithSlash = dir.back() == '/';
    ssize_t filled;
    while ((filled = getdents64(fd, buffer.get(), kEntryBufferBytes)) > 0) {
      for (ssize_t offset = 0; offset < filled;) {
        const auto* entry = reinterpret_cast<const struct dirent64*>(buffer.get() + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (isDotOrDotDot(name)) continue;
        // Relative to the open directory: the kernel need not walk the whole
        // path again for every entry.
        const int statResult = fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW);
        const int statErrno = errno;
        const bool isDir = statResult == 0 && S_ISDIR(st.st_mode);
        const bool listed = statResult == 0 && (S_ISLNK(st.st_mode) || S_ISREG(st.st_mode));
        // Devices, FIFOs and sockets are left out without a word.
        if (statResult == 0 && !isDir && !listed) continue;

        const size_t nameLength = std::strlen(name);
        std::string child;
        child.reserve(dir.size() + 1 + nameLength);
        child.append(dir);
        if (!endsWithSlash) child.push_back('/');
        child.append(name, nameLength);
        if (statResult != 0) {
          ZLOG_ERROR("Failed to stat path: %s, error: %s", child.c_str(), strerror(statErrno));
        } else if (listed) {
          out.push_back(std::move(child));
        } else {
          queue.push_back(std::move(child));
          if (!queued.insert(queue.back()).second) queue.pop_back();
        }
      }
    }
    if (++opened >= kMaxDirectories) {
      ZLOG_ERROR("Reached maximum directory limit: %zu", kMaxDirectories);
      break;
    }
  }
  return 0;
}

std::vector<std::string> sortPaths(std::vector<std::string> paths) {
  std::vector<std::string> gathered;
  gathered.reserve(paths.size());
  for (std::string& text : paths) {
    const fs::path path(text);
    // Only '*' asks for expansion; '?' and brackets are kept as literal text.
    if (path.has_filename() && path.filename().string().find('*') != std::string::npos) {
      for (const fs::path& match : expandPath(path)) gathered.push_back(match.string());
    } else {
      gathered.push_back(std::move(text));
    }
  }
  std::sort(gathered.begin(), gathered.end(),
            [](const std::string& a, const std::string& b) { return comparePaths(a, b); });
  return gathered;
}

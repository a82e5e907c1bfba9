#include "common/pinned_walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "common/dir_stream.h"

namespace zorv {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Walk {
 public:
  Walk(int rootFd, const std::string& rootPath, PinnedWalkVisitor& visitor, size_t openFrames)
      : rootFd_(rootFd),
        root_(rootPath),
        visitor_(visitor),
        maxOpen_(openFrames),
        buffer_(64 * 1024) {}

  void run(DirId root) {
    UniqueFd fd(::openat(rootFd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
      visitor_.failed(PinnedWalkVisitor::Problem::kOpen, root_, errno);
      return;
    }
    frames_.push_back(Frame{std::make_shared<UniqueFd>(std::move(fd)), root_, root, {}, 0});
    list(frames_.back());
    while (!frames_.empty()) {
      Frame& top = frames_.back();
      if (top.next == top.subdirs.size()) {
        pop();
        continue;
      }
      Subdir sub = std::move(top.subdirs[top.next++]);
      if (!top.dir) continue;  // lost meanwhile (reported)
      std::string path = joinPath(top.path, sub.name.c_str());
      UniqueFd child;
      int rc = openSubdirectory(top.dir->get(), sub.name.c_str(), sub.id, &child);
      if (rc != 0) {
        visitor_.failed(rc == -ESTALE ? PinnedWalkVisitor::Problem::kReplaced
                                      : PinnedWalkVisitor::Problem::kOpen,
                        path, -rc);
        continue;
      }
      frames_.push_back(
          Frame{std::make_shared<UniqueFd>(std::move(child)), std::move(path), sub.id, {}, 0});
      if (++open_ > maxOpen_) {
        frames_[frames_.size() - open_].dir.reset();
        --open_;
      }
      list(frames_.back());
    }
  }

 private:
  struct Subdir {
    std::string name;
    DirId id;
  };
  struct Frame {
    DirRef dir;  // null once closed to spare descriptors
    std::string path;
    DirId id;
    std::vector<Subdir> subdirs;
    size_t next;
  };

  void list(Frame& frame) {
    DirStream stream(frame.dir->get(), buffer_);
    DirStream::Entry listed;
    while (stream.next(&listed)) {
      WalkEntry entry;
      entry.path = joinPath(frame.path, listed.name);
      entry.dir = frame.dir;
      entry.nameOffset = static_cast<uint32_t>(entry.path.size() - std::strlen(listed.name));
      entry.type = listed.type;
      std::optional<DirId> enter = visitor_.visit(entry);
      if (enter) frame.subdirs.push_back(Subdir{listed.name, *enter});
    }
    if (stream.error() != 0)
      visitor_.failed(PinnedWalkVisitor::Problem::kRead, frame.path, stream.error());
  }

  // Leaves the current directory, reopening its parent if it was closed.
  void pop() {
    Frame child = std::move(frames_.back());
    frames_.pop_back();
    if (child.dir) --open_;
    if (frames_.empty()) return;
    Frame& parent = frames_.back();
    if (parent.dir) return;
    UniqueFd fd;
    if (child.dir) fd.reset(::openat(child.dir->get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) fd = reopenBelow(rootFd_, root_, parent.path);
    struct stat st;
    if (fd && ::fstat(fd.get(), &st) == 0 && st.st_dev == parent.id.dev &&
        st.st_ino == parent.id.ino) {
      parent.dir = std::make_shared<UniqueFd>(std::move(fd));
      ++open_;
      return;
    }
    visitor_.failed(PinnedWalkVisitor::Problem::kLost, parent.path, fd ? ESTALE : errno);
    parent.next = parent.subdirs.size();
  }

  const int rootFd_;
  const std::string root_;
  PinnedWalkVisitor& visitor_;
  const size_t maxOpen_;
  std::vector<char> buffer_;  // one for every listing
  std::vector<Frame> frames_;
  size_t open_ = 1;  // the root's
};

}  // namespace

void walkPinned(int rootFd, const std::string& rootPath, DirId root, PinnedWalkVisitor& visitor,
                size_t openFrames) {
  Walk(rootFd, rootPath, visitor, openFrames == 0 ? 1 : openFrames).run(root);
}

std::string joinPath(const std::string& dir, const char* name) {
  size_t nameSize = std::strlen(name);
  std::string path;
  path.reserve(dir.size() + 1 + nameSize);
  path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path.append(name, nameSize);
  return path;
}

int openSubdirectory(int dirfd, const char* name, DirId expected, UniqueFd* out) {
  UniqueFd dir(::openat(dirfd, name, kDirFlags));
  if (!dir) return -errno;
  struct stat st;
  if (::fstat(dir.get(), &st) != 0) return -errno;
  if (st.st_dev != expected.dev || st.st_ino != expected.ino) return -ESTALE;
  *out = std::move(dir);
  return 0;
}

UniqueFd reopenBelow(int rootFd, const std::string& rootPath, const std::string& dirPath) {
  UniqueFd dir(::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  size_t begin = rootPath == "/" ? 1 : rootPath.size() + 1;
  while (dir && begin < dirPath.size()) {
    size_t end = dirPath.find('/', begin);
    if (end == std::string::npos) end = dirPath.size();
    std::string name = dirPath.substr(begin, end - begin);
    dir.reset(::openat(dir.get(), name.c_str(), kDirFlags));
    begin = end + 1;
  }
  return dir;
}

}  // namespace zorv

// The "/" the library's policy is read for: the running system's, or that of
// a system image or chroot kept in a directory, so that an image can be
// judged before it is booted. Paths are always the ones seen from inside;
// symbolic links are resolved within the image and never lead out of it.
#ifndef ZORV_LABELMGR_IMAGE_ROOT_H_
#define ZORV_LABELMGR_IMAGE_ROOT_H_

#include <string>

#include "common/safe_path.h"
#include "common/unique_fd.h"

namespace zorv::labelmgr {

class ImageRoot {
 public:
  /// The running system.
  ImageRoot() = default;
  /// Opens the image whose "/" is the directory `dir` (resolved as a user-named
  /// path). False with `*error` set when it cannot be opened.
  bool open(const std::string& dir, std::string* error);

  bool isSystem() const { return !fd_; }
  /// For *at() calls on in-image paths; -1 for the running system.
  int fd() const { return fd_ ? fd_.get() : -1; }
  /// The canonical host path of the image's "/" ("" for the running system
  /// and for an image at "/").
  const std::string& hostRoot() const { return path_; }
  /// Where canonical in-image `path` is reached from this process.
  std::string hostPath(const std::string& path) const;
  /// resolvePinnedIn() inside the image.
  int resolve(const std::string& path, bool followLast, PinnedEntry* entry,
              std::string* error) const {
    return resolvePinnedIn(fd(), path, LinkRule::kSafe, followLast, entry, error);
  }
  /// The canonical in-image form of `path` when it exists (links followed),
  /// else `path` unchanged.
  std::string canonical(const std::string& path) const;

  /// The library's own directories, inside the image: its dpkg database and
  /// state directory (the built-in places; the environment overrides apply to
  /// the running system only) and the directory of exclude rules.
  std::string dpkgDirectory() const;
  std::string stateDirectory() const;
  std::string excludeDirectory() const;

 private:
  UniqueFd fd_;
  std::string path_;  // canonical host path of the image's "/"
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_IMAGE_ROOT_H_

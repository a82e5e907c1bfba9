// What the dpkg database says: which packages are installed and which files
// each of them installed. Read-only; nothing here writes under the dpkg
// directory.
#ifndef ZORV_LABELMGR_DPKG_DB_H_
#define ZORV_LABELMGR_DPKG_DB_H_

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zorv::labelmgr {

class ImageRoot;

constexpr char kDpkgDirectory[] = "/var/lib/dpkg";

/// $ZORV_LABELMGR_DPKG_DIR when set and non-empty, else kDpkgDirectory.
std::string dpkgDirectory();

/// Names of the packages that the "status" file marks installed, sorted and
/// without duplicates. A machine without dpkg (no status file) has none; a
/// status file that exists but cannot be read whole is an error: false,
/// logged. "No package owns this" and "the package database could not be
/// read" must never be confused, or files would be labelled as nobody's.
/// The status file and the file lists are never read through a symbolic
/// link: dpkg makes none there, and an image's may be anyone's.
bool readInstalledPackages(const std::string& dpkgDir, std::vector<std::string>* names);

/// Which package's file list ("info/NAME.list" or "info/NAME:ARCH.list") holds
/// each path. Built once, then only read: lookups are thread-safe.
class OwnershipIndex {
 public:
  static constexpr uint32_t kNoOwner = UINT32_MAX;

  /// Reads the file lists of `packages` (sorted, as readInstalledPackages
  /// answers); lists of other packages are ignored. Each listed path is keyed
  /// with its directory made canonical, so that a file listed as /bin/x is
  /// found as /usr/bin/x where /bin links to /usr/bin. With `only`, just
  /// those canonical paths are indexed, which is much cheaper than indexing
  /// all of a full system's lists. With `under` (a canonical directory), just
  /// the paths inside it are indexed.
  /// With `image`, listed paths are those of that image and its links are
  /// resolved inside it.
  /// False (logged) when the info directory or a listed package's file
  /// list exists but cannot be read whole; a machine without the directory
  /// has no lists.
  bool load(const std::string& dpkgDir, const std::vector<std::string>& packages,
            const std::unordered_set<std::string>* only = nullptr,
            const std::string* under = nullptr, const ImageRoot* image = nullptr);

  /// Index into the `packages` given to load() of the one package that lists
  /// `canonicalPath`; kNoOwner when none does, and also when several do
  /// (directories such as /usr/bin belong to no single package).
  uint32_t ownerOf(const std::string& canonicalPath) const;

  size_t size() const { return owners_.size(); }

  /// Marks a path listed by more than one package (while loading).
  static constexpr uint32_t kShared = UINT32_MAX - 1;

 private:
  std::unordered_map<std::string, uint32_t> owners_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_DPKG_DB_H_

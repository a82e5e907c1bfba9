#include "labelmgr/tree_item.h"

#include <cerrno>

#include "label/label_attr.h"

namespace zorv::labelmgr {

std::mutex& treeLogMutex() {
  static std::mutex mutex;
  return mutex;
}

ssize_t readTreeLabel(const TreeItem& item, unsigned char* buffer, size_t size) {
  ssize_t rc = readLabelAt(item.dirfd(), item.name(), buffer, size);
  if (rc < 0) errno = static_cast<int>(-rc);
  return rc < 0 ? -1 : rc;
}

int writeTreeLabel(const TreeItem& item, const unsigned char* bytes, size_t size, int flags) {
  int rc = writeLabelAt(item.dirfd(), item.name(), bytes, size, flags);
  if (rc < 0) errno = -rc;
  return rc < 0 ? -1 : 0;
}

}  // namespace zorv::labelmgr

#include "labelmgr/hard_links.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zorv::labelmgr {

void DeferredLinks::defer(TreeItem item) {
  item.dir.reset();
  item.linkResolved = true;
  std::lock_guard<std::mutex> lock(mutex_);
  auto key = std::make_pair(item.stat.st.st_dev, item.stat.st.st_ino);
  auto found = items_.find(key);
  if (found == items_.end()) {
    items_.emplace(key, std::move(item));
  } else if (item.path < found->second.path) {
    found->second = std::move(item);
  }
}

std::vector<TreeItem> DeferredLinks::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<TreeItem> items;
  items.reserve(items_.size());
  for (auto& entry : items_) items.push_back(std::move(entry.second));
  items_.clear();
  std::sort(items.begin(), items.end(),
            [](const TreeItem& a, const TreeItem& b) { return a.path < b.path; });
  return items;
}

void relink(int rootFd, const std::string& root, std::vector<TreeItem>& linked,
            const std::function<void(TreeItem)>& pass, uint64_t* failed) {
  DirRef dir;
  std::string dirPath;
  bool opened = false;
  for (TreeItem& item : linked) {
    std::string parent = item.parentPath();
    if (!opened || parent != dirPath) {
      opened = true;
      dirPath = parent;
      UniqueFd fd = reopenBelow(rootFd, root, parent);
      dir = fd ? std::make_shared<UniqueFd>(std::move(fd)) : nullptr;
      if (!dir) {
        TREE_LOG(ERROR, "cannot reach directory %s again: %s", parent.c_str(),
                 std::strerror(errno));
      }
    }
    struct stat st;
    if (!dir || ::fstatat(dir->get(), item.name(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        st.st_dev != item.stat.st.st_dev || st.st_ino != item.stat.st.st_ino) {
      if (dir) TREE_LOG(ERROR, "%s was replaced during the walk; not labelled", item.path.c_str());
      ++*failed;
      continue;
    }
    item.dir = dir;
    pass(std::move(item));
  }
}

}  // namespace zorv::labelmgr

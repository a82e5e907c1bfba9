#include "labelmgr/tree_label_cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "labelmgr/dpkg_db.h"
#include "labelmgr/label_policy.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

constexpr char kMagic[8] = {'Z', 'O', 'R', 'V', 'T', 'R', 'E', 'E'};
constexpr uint32_t kVersion = 1;

struct Header {
  char magic[8];
  uint32_t version;
  uint32_t entrySize;
  uint64_t fingerprint;
  uint64_t count;
};

class Fnv {
 public:
  void add(const void* data, size_t size) {
    auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) hash_ = (hash_ ^ bytes[i]) * 0x100000001b3ull;
  }
  void add(uint64_t value) { add(&value, sizeof value); }
  // Texts carry their length so that ("ab", "c") and ("a", "bc") differ.
  void add(const std::string& text) {
    add(uint64_t{text.size()});
    add(text.data(), text.size());
  }
  uint64_t value() const { return hash_; }

 private:
  uint64_t hash_ = 0xcbf29ce484222325ull;
};

void addFileState(Fnv& fnv, const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    fnv.add(uint64_t{0});
    return;
  }
  fnv.add(uint64_t{st.st_dev});
  fnv.add(uint64_t{st.st_ino});
  fnv.add(static_cast<uint64_t>(st.st_size));
  fnv.add(static_cast<uint64_t>(st.st_mtim.tv_sec) * 1'000'000'000 +
          static_cast<uint64_t>(st.st_mtim.tv_nsec));
}

uint64_t slotOf(uint64_t dev, uint64_t ino) {
  uint64_t x = ino * 0x9e3779b97f4a7c15ull ^ dev;
  return x ^ (x >> 29);
}

bool readAll(int fd, void* data, size_t size) {
  auto* bytes = static_cast<char*>(data);
  while (size > 0) {
    ssize_t n = ::read(fd, bytes, size);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool writeAll(int fd, const void* data, size_t size) {
  auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, bytes, size);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int64_t ctimeNs(const struct stat& st) {
  return static_cast<int64_t>(st.st_ctim.tv_sec) * 1'000'000'000 + st.st_ctim.tv_nsec;
}

}  // namespace

uint64_t TreeLabelCache::fingerprint(const LabelPolicy& policy) {
  return fingerprint(policy.rules().all(), policy.packageIds().userSet());
}

uint64_t TreeLabelCache::fingerprint(const std::vector<FileRule>& rules,
                                     const std::vector<PkgIdRule>& packageIds) {
  Fnv fnv;
  fnv.add(uint64_t{kVersion});
  for (const PkgIdRule& rule : packageIds) {
    fnv.add(rule.name);
    fnv.add(rule.id);
  }
  for (const FileRule& rule : rules) {
    fnv.add(uint64_t{static_cast<uint64_t>(rule.field)});
    fnv.add(uint64_t{rule.isPattern});
    fnv.add(rule.target);
    for (uint64_t value : rule.value) fnv.add(value);
    fnv.add(static_cast<uint64_t>(rule.seq));
  }
  // The installed packages (and so their ids) come from dpkg's status file,
  // and the package owning each file from its file lists: a changed file
  // changes its size or modification time.
  std::string dpkgDir = dpkgDirectory();
  addFileState(fnv, dpkgDir + "/status");
  std::vector<std::string> lists;
  if (DIR* dir = ::opendir((dpkgDir + "/info").c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".list") == 0) lists.push_back(name);
    }
    ::closedir(dir);
  }
  std::sort(lists.begin(), lists.end());
  for (const std::string& name : lists) {
    fnv.add(name);
    addFileState(fnv, dpkgDir + "/info/" + name);
  }
  return fnv.value();
}

uint64_t TreeLabelCache::hashPath(std::string_view path) {
  Fnv fnv;
  fnv.add(path.data(), path.size());
  return fnv.value();
}

TreeCacheEntry TreeLabelCache::entryFor(const struct stat& st, uint64_t pathHash) {
  return TreeCacheEntry{st.st_dev, st.st_ino, pathHash, ctimeNs(st), st.st_mode, 0};
}

namespace {

// A run killed while saving leaves its "FILE.tmp.PID" behind; the next run
// removes those whose process is gone (a live one may be saving right now).
void removeAbandonedTemporaries(const std::string& file) {
  size_t slash = file.find_last_of('/');
  std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  std::string prefix = (slash == std::string::npos ? file : file.substr(slash + 1)) + ".tmp.";
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return;
  while (const struct dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    char* end = nullptr;
    long pid = std::strtol(name + prefix.size(), &end, 10);
    if (end == name + prefix.size() || *end != '\0' || pid <= 0 || pid == ::getpid()) continue;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      ::unlinkat(::dirfd(dir), name, 0);
    }
  }
  ::closedir(dir);
}

}  // namespace

void TreeLabelCache::load(const std::string& file, uint64_t fingerprint) {
  removeAbandonedTemporaries(file);
  entries_.clear();
  slots_.clear();
  count_ = 0;
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  Header header{};
  struct stat st;
  bool usable = ::fstat(fd, &st) == 0 && readAll(fd, &header, sizeof header) &&
                std::memcmp(header.magic, kMagic, sizeof kMagic) == 0 &&
                header.version == kVersion && header.entrySize == sizeof(TreeCacheEntry);
  if (usable && header.fingerprint == fingerprint) {
    usable = header.count < UINT32_MAX && static_cast<uint64_t>(st.st_size) ==
                                              sizeof header + header.count * sizeof(TreeCacheEntry);
    if (usable) {
      entries_.resize(header.count);
      usable = readAll(fd, entries_.data(), entries_.size() * sizeof(TreeCacheEntry));
    }
  } else if (usable) {
    entries_.clear();  // written under other rules or packages: nothing in it holds
  }
  ::close(fd);
  if (!usable) {
    entries_.clear();
    ZLOG_WARN("ignoring the damaged or foreign tree label cache %s", file.c_str());
    return;
  }
  // The slots hold indexes into the entries as read (plus one; 0 is free):
  // a quarter of the memory of a table of whole entries, so a second run over
  // a large tree faults in far fewer pages and misses the cache less.
  size_t capacity = 16;
  while (capacity < 2 * entries_.size()) capacity *= 2;
  slots_.assign(capacity, 0);
  for (uint32_t index = 0; index < entries_.size(); ++index) {
    const TreeCacheEntry& entry = entries_[index];
    size_t slot = slotOf(entry.dev, entry.ino) & (capacity - 1);
    while (slots_[slot] != 0) {
      const TreeCacheEntry& held = entries_[slots_[slot] - 1];
      if (held.dev == entry.dev && held.ino == entry.ino) break;
      slot = (slot + 1) & (capacity - 1);
    }
    if (slots_[slot] == 0) {
      ++count_;
    } else {  // a later entry for the same inode wins; the earlier never matches
      entries_[slots_[slot] - 1].dev = UINT64_MAX;
      entries_[slots_[slot] - 1].ino = 0;
    }
    slots_[slot] = index + 1;
  }
}

const TreeCacheEntry* TreeLabelCache::find(uint64_t dev, uint64_t ino, size_t* hint) const {
  if (slots_.empty()) return nullptr;
  if (hint != nullptr && *hint < entries_.size() && entries_[*hint].dev == dev &&
      entries_[*hint].ino == ino) {
    return &entries_[(*hint)++];
  }
  size_t mask = slots_.size() - 1;
  for (size_t slot = slotOf(dev, ino) & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
    const TreeCacheEntry& entry = entries_[slots_[slot] - 1];
    if (entry.dev == dev && entry.ino == ino) {
      if (hint != nullptr) *hint = slots_[slot];  // the entry after this one
      return &entry;
    }
  }
  return nullptr;
}

bool TreeLabelCache::fresh(const struct stat& st, uint64_t pathHash, size_t* hint) const {
  const TreeCacheEntry* entry = find(st.st_dev, st.st_ino, hint);
  return entry != nullptr && entry->pathHash == pathHash && entry->ctimeNs == ctimeNs(st) &&
         entry->mode == st.st_mode;
}

bool TreeLabelCache::save(const std::string& file, uint64_t fingerprint,
                          const std::vector<TreeCacheEntry>& entries) {
  std::string temporary = file + ".tmp." + std::to_string(::getpid());
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    ZLOG_ERROR("cannot write the tree label cache %s: %s", temporary.c_str(), std::strerror(errno));
    return false;
  }
  Header header{};
  std::memcpy(header.magic, kMagic, sizeof kMagic);
  header.version = kVersion;
  header.entrySize = sizeof(TreeCacheEntry);
  header.fingerprint = fingerprint;
  header.count = entries.size();
  bool ok = writeAll(fd, &header, sizeof header) &&
            writeAll(fd, entries.data(), entries.size() * sizeof(TreeCacheEntry));
  ok = ::close(fd) == 0 && ok;
  if (!ok || ::rename(temporary.c_str(), file.c_str()) != 0) {
    ZLOG_ERROR("cannot write the tree label cache %s: %s", file.c_str(), std::strerror(errno));
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace zorv::labelmgr

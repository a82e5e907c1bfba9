#include "labelmgr/tree_label_cache.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/dir_stream.h"
#include "common/unique_fd.h"
#include "labelmgr/dpkg_db.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/state_files.h"
#include "log/logger.h"

namespace zorv::labelmgr {
namespace {

constexpr char kMagic[8] = {'Z', 'O', 'R', 'V', 'T', 'R', 'E', 'E'};
constexpr uint32_t kVersion = 1;
// Far more inodes than any one tree holds, and below the 32-bit slot indexes.
constexpr uint64_t kMaxEntries = uint64_t{1} << 30;

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
                                     const std::vector<PkgIdRule>& packageIds,
                                     const std::string* dpkgDirOf) {
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
  std::string dpkgDir = dpkgDirOf != nullptr ? *dpkgDirOf : dpkgDirectory();
  addFileState(fnv, dpkgDir + "/status");
  std::vector<std::string> lists;
  if (UniqueFd fd{::open((dpkgDir + "/info").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)}) {
    DirStream dir(std::move(fd));
    DirStream::Entry entry;
    while (dir.next(&entry)) {
      std::string name = entry.name;
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".list") == 0) lists.push_back(name);
    }
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

// The file's directory, checked as the state directory is, and its name.
bool openCacheDirectory(const std::string& file, StateDir* dir, std::string* name,
                        std::string* error) {
  size_t slash = file.find_last_of('/');
  std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  *name = slash == std::string::npos ? file : file.substr(slash + 1);
  return openStateDir(directory, false, dir, error) == 0;
}

// A run killed while saving leaves its "FILE.tmp.PID" behind; the next run
// removes those whose process is gone (a live one may be saving right now).
void removeAbandonedTemporaries(const StateDir& state, const std::string& file) {
  std::string prefix = file + ".tmp.";
  UniqueFd fd(::openat(state.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return;
  DirStream dir(std::move(fd));
  DirStream::Entry entry;
  while (dir.next(&entry)) {
    const char* name = entry.name;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    char* end = nullptr;
    long pid = std::strtol(name + prefix.size(), &end, 10);
    if (end == name + prefix.size() || *end != '\0' || pid <= 0 || pid == ::getpid()) continue;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      ::unlinkat(dir.fd(), name, 0);
    }
  }
}

// Why the opened cache file cannot be what save() wrote, or "" when its
// header and size agree. Nothing is read beyond the header before this says
// yes, so a forged header cannot make us allocate what the file does not hold.
std::string fileProblem(int fd, const struct stat& st, const Header& header) {
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by group or others";
  if (st.st_nlink != 1) return "linked elsewhere";
  if (header.count > kMaxEntries) return "more entries than any tree holds";
  if (static_cast<uint64_t>(st.st_size) != sizeof header + header.count * sizeof(TreeCacheEntry))
    return "size disagrees with its header";
  // save() writes every byte: a hole is something else's doing.
  off_t hole = ::lseek(fd, 0, SEEK_HOLE);
  if (hole >= 0 && hole < st.st_size) return "sparse";
  if (::lseek(fd, sizeof header, SEEK_SET) != static_cast<off_t>(sizeof header))
    return "cannot be read";
  return "";
}

}  // namespace

void TreeLabelCache::load(const std::string& file, uint64_t fingerprint) {
  entries_.clear();
  slots_.clear();
  count_ = 0;
  StateDir dir;
  std::string name, error;
  if (!openCacheDirectory(file, &dir, &name, &error)) {
    ZLOG_WARN("not using the tree label cache %s: %s", file.c_str(), error.c_str());
    return;
  }
  removeAbandonedTemporaries(dir, name);
  UniqueFd fd;
  int rc = openStateFile(dir, name, O_RDONLY, 0, &fd, &error);
  if (rc == -ENOENT) return;
  if (rc != 0) {
    // Whatever stands there (a link, a FIFO) is replaced when this run saves.
    ZLOG_WARN("ignoring the tree label cache: %s", error.c_str());
    if (rc == -ELOOP || rc == -EINVAL) ::unlinkat(dir.fd.get(), name.c_str(), 0);
    return;
  }
  Header header{};
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !readAll(fd.get(), &header, sizeof header) ||
      std::memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.version != kVersion ||
      header.entrySize != sizeof(TreeCacheEntry)) {
    ZLOG_WARN("ignoring the damaged or foreign tree label cache %s", file.c_str());
    return;
  }
  // Written under other rules or packages: nothing in it holds.
  if (header.fingerprint != fingerprint) return;
  std::string problem = fileProblem(fd.get(), st, header);
  if (!problem.empty()) {
    ZLOG_WARN("ignoring the tree label cache %s: %s", file.c_str(), problem.c_str());
    return;
  }
  entries_.resize(header.count);
  if (!readAll(fd.get(), entries_.data(), entries_.size() * sizeof(TreeCacheEntry))) {
    entries_.clear();
    ZLOG_WARN("ignoring the damaged tree label cache %s", file.c_str());
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
  StateDir dir;
  std::string name, error;
  if (!openCacheDirectory(file, &dir, &name, &error)) {
    ZLOG_ERROR("cannot write the tree label cache %s: %s", file.c_str(), error.c_str());
    return false;
  }
  if (entries.size() > kMaxEntries) {
    ZLOG_ERROR("not writing the tree label cache %s: %zu entries", file.c_str(), entries.size());
    return false;
  }
  std::string temporary = name + ".tmp." + std::to_string(::getpid());
  // One left by an earlier process of the same id (or planted) goes first.
  ::unlinkat(dir.fd.get(), temporary.c_str(), 0);
  UniqueFd fd;
  if (openStateFile(dir, temporary, O_WRONLY | O_CREAT | O_EXCL, 0600, &fd, &error) != 0) {
    ZLOG_ERROR("cannot write the tree label cache %s: %s", file.c_str(), error.c_str());
    return false;
  }
  Header header{};
  std::memcpy(header.magic, kMagic, sizeof kMagic);
  header.version = kVersion;
  header.entrySize = sizeof(TreeCacheEntry);
  header.fingerprint = fingerprint;
  header.count = entries.size();
  bool ok = writeAll(fd.get(), &header, sizeof header) &&
            writeAll(fd.get(), entries.data(), entries.size() * sizeof(TreeCacheEntry));
  ok = ::close(fd.release()) == 0 && ok;
  // rename() replaces whatever stands at the name (a link, a FIFO) without
  // following it.
  if (!ok || ::renameat(dir.fd.get(), temporary.c_str(), dir.fd.get(), name.c_str()) != 0) {
    ZLOG_ERROR("cannot write the tree label cache %s: %s", file.c_str(), std::strerror(errno));
    ::unlinkat(dir.fd.get(), temporary.c_str(), 0);
    return false;
  }
  return true;
}

}  // namespace zorv::labelmgr

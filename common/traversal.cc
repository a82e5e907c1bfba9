#include "common/traversal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_set>

#include "common/dir_stream.h"
#include "common/path_resolve.h"
#include "common/unique_fd.h"
#include "log/logger.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kMaxDirectories = 100000;
constexpr size_t kMaxRootBytes = 4096;
constexpr size_t kEntryBufferBytes = 64 * 1024;
// Directories read ahead of the one being listed: bounds the memory that
// waiting listings hold and the work done past the directory cap.
constexpr size_t kMaxBatch = 1024;
// Below this many directories a batch is read on the calling thread alone.
constexpr size_t kMinParallelBatch = 32;
constexpr unsigned kMaxReaders = 4;

enum class EntryKind : unsigned char { kListed, kDirectory, kStatFailed };

struct Entry {
  std::string path;
  int error;  // errno of a failed lstat
  EntryKind kind;
};

// What reading one directory found, kept until it is its turn to be listed.
struct Listing {
  bool outsideRoot = false;
  int openError = 0;
  std::vector<Entry> entries;
};

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

// Opens `dir` and lstat()s each entry relative to the open descriptor, so the
// kernel resolves one name per entry instead of the whole path. Keeps
// regular files, links and directories; other kinds are dropped here.
void readDirectory(const std::string& root, const std::string& dir, bool isRoot, Listing& listing) {
  // Every queued path is built by appending to the root; anything else is
  // never opened.
  if (dir.compare(0, root.size(), root) != 0) {
    listing.outsideRoot = true;
    return;
  }
  // Below the root a directory was seen by lstat as a real directory; if it
  // has been swapped for a link since, refuse it rather than walk elsewhere.
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  if (!isRoot) flags |= O_NOFOLLOW;
  zorv::UniqueFd fd(::open(dir.c_str(), flags));
  if (!fd) {
    listing.openError = errno;
    return;
  }
  zorv::DirStream stream(std::move(fd), kEntryBufferBytes);
  const bool endsWithSlash = dir.back() == '/';
  struct stat st {};
  zorv::DirStream::Entry found;
  while (stream.next(&found)) {
    const char* name = found.name;
    EntryKind kind = EntryKind::kStatFailed;
    int error = 0;
    if (fstatat(stream.fd(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      error = errno;
    } else if (S_ISDIR(st.st_mode)) {
      kind = EntryKind::kDirectory;
    } else if (S_ISLNK(st.st_mode) || S_ISREG(st.st_mode)) {
      kind = EntryKind::kListed;
    } else {
      continue;  // devices, FIFOs and sockets are left out without a word
    }
    const size_t nameLength = std::strlen(name);
    Entry& entry = listing.entries.emplace_back(Entry{std::string(), error, kind});
    entry.path.reserve(dir.size() + 1 + nameLength);
    entry.path.append(dir);
    if (!endsWithSlash) entry.path.push_back('/');
    entry.path.append(name, nameLength);
  }
}

// Reads the directories queue[first, first + listings.size()) into
// `listings`. Reading is where a walk spends its time (one lstat per entry),
// and the directories of a batch do not depend on each other, so large
// batches are shared among a few threads; the caller lists the results in
// queue order afterwards, which keeps the output and the log exactly as a
// one-by-one walk would produce them. Only the calling thread logs.
void readBatch(const std::string& root, const std::deque<std::string>& queue, size_t first,
               std::vector<Listing>& listings) {
  const size_t count = listings.size();
  std::atomic<size_t> next{0};
  std::exception_ptr failure;
  std::atomic<bool> failed{false};
  auto reader = [&] {
    try {
      for (size_t i = next++; i < count; i = next++) {
        readDirectory(root, queue[first + i], first + i == 0, listings[i]);
      }
    } catch (...) {
      // Only the first failure is kept; the others stop their reader too.
      if (!failed.exchange(true)) failure = std::current_exception();
      next = count;
    }
  };

  std::vector<std::thread> helpers;
  if (count >= kMinParallelBatch) {
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const unsigned wanted = std::min(cores, kMaxReaders) - 1;
    helpers.reserve(wanted);  // so that only starting a thread can fail below
    for (unsigned i = 0; i < wanted; ++i) {
      try {
        helpers.emplace_back(reader);
      } catch (const std::system_error&) {
        break;  // no more threads to be had: read with fewer
      }
    }
  }
  reader();
  for (std::thread& helper : helpers) helper.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

int traverseDirectory(const std::string& rootArg, std::vector<std::string>& out) {
  const std::string root = normalizeRoot(rootArg);
  if (root.size() > kMaxRootBytes) {
    ZLOG_ERROR("Path too long: %s", root.c_str());
    return -1;
  }
  if (access(root.c_str(), F_OK) != 0) {
    // Saved first: the logger's first use may change errno before the
    // arguments are read.
    const int error = errno;
    ZLOG_ERROR("Directory does not exist: %s, error: %s", root.c_str(), strerror(error));
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
  std::vector<Listing> listings;

  while (front < queue.size()) {
    // Never read further ahead than the cap could still allow, so that a cut
    // walk does no more work than a one-by-one walk would.
    const size_t batch = std::min({queue.size() - front, kMaxBatch, kMaxDirectories - opened});
    listings.clear();
    listings.resize(batch);
    readBatch(root, queue, front, listings);

    for (Listing& listing : listings) {
      const std::string& dir = queue[front++];
      if (listing.outsideRoot) {
        ZLOG_ERROR("Potential path traversal detected: %s", dir.c_str());
        continue;
      }
      if (listing.openError != 0) {
        ZLOG_ERROR("Failed to open directory: %s, error: %s", dir.c_str(),
                   strerror(listing.openError));
        continue;
      }
      out.push_back(dir);
      for (Entry& entry : listing.entries) {
        switch (entry.kind) {
          case EntryKind::kStatFailed:
            ZLOG_ERROR("Failed to stat path: %s, error: %s", entry.path.c_str(),
                       strerror(entry.error));
            break;
          case EntryKind::kListed:
            out.push_back(std::move(entry.path));
            break;
          case EntryKind::kDirectory:
            queue.push_back(std::move(entry.path));
            if (!queued.insert(queue.back()).second) queue.pop_back();
            break;
        }
      }
      if (++opened >= kMaxDirectories) {
        ZLOG_ERROR("Reached maximum directory limit: %zu", kMaxDirectories);
        return 0;
      }
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

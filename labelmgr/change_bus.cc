#include "labelmgr/change_bus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <stdexcept>

#include "labelmgr/state_db.h"
#include "log/logger.h"
#include "msg/zmq_socket.h"

namespace zorv::labelmgr {
namespace {

constexpr char kEndpointSuffix[] = ".ipc";
constexpr char kLockSuffix[] = ".lock";

// How long closing waits for queued messages to leave. A live listener takes
// them at once; only one that died after we looked can hold us this long.
constexpr int kLingerMs = 500;
// A send that cannot even be queued (the listener stopped reading and its queue
// is full) gives up after this long; that listener is then dropped for the rest
// of the process so that a pattern set does not stall on every message.
constexpr int kSendTimeoutMs = 1000;
constexpr int kSendHighWater = 100000;
constexpr int kReceiveHighWater = 1000000;
// Directory timestamps are only as fine as the file system's clock (a whole
// second on some). Until a listing is this much younger than the mtime it saw,
// an unchanged mtime does not prove that nothing was added since.
constexpr int64_t kMtimeMarginNs = 2'000'000'000;
// A lock file without an endpoint this old belongs to a listener that died
// while setting itself up.
constexpr time_t kOrphanLockAgeS = 60;
// How often a publisher makes sure the listeners it is connected to still live.
constexpr int64_t kPeerCheckIntervalNs = 1'000'000'000;

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool endsWith(const std::string& text, const char* suffix) {
  size_t n = std::strlen(suffix);
  return text.size() > n && text.compare(text.size() - n, n, suffix) == 0;
}

int64_t toNs(const timespec& t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; }

int64_t nowNs() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return toNs(t);
}

// Creates `path` (mode `mode`) and any missing parents (0755).
bool makeDirectory(const std::string& path, mode_t mode) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !makeDirectory(path.substr(0, slash), 0755)) {
    return false;
  }
  if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return false;
  return true;
}

// True while the listener that owns `lockPath` holds its lock. A lock file that
// cannot be opened for another reason than its absence counts as alive: a
// wrong guess costs one bounded linger, a wrong removal would cut off a
// listener.
bool listenerAlive(const std::string& lockPath) {
  UniqueFd fd(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (fd.get() < 0) return errno != ENOENT;
  // A shared probe: two publishers testing the same dead listener both see it
  // dead instead of one of them mistaking the other's probe for the listener.
  if (::flock(fd.get(), LOCK_SH | LOCK_NB) == 0) return false;
  return errno == EWOULDBLOCK;
}

// The publishing side of one process. Its sockets stay open across messages
// and are closed at exit with a bounded linger.
class Publisher {
 public:
  static Publisher& instance() {
    static Publisher publisher;
    return publisher;
  }

  void publish(const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    adoptProcess();
    refresh();
    for (size_t i = 0; i < peers_.size();) {
      try {
        peers_[i].socket->send(message);
        ++i;
      } catch (const std::exception& e) {
        ZLOG_ERROR("label change message not delivered to listener %s: %s", peers_[i].name.c_str(),
                   e.what());
        dropPeer(i, true);
      }
    }
  }

  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    adoptProcess();
    peers_.clear();
    listed_ = false;
  }

 private:
  struct Peer {
    std::string name;
    std::unique_ptr<ZMQSocket> socket;
  };

  // The logger is built before this object so that it is destroyed after it:
  // our destructor may still log.
  Publisher() { Logger::getInstance(); }
  ~Publisher() {
    std::lock_guard<std::mutex> lock(mutex_);
    adoptProcess();
    peers_.clear();
  }

  // Sockets inherited through fork() belong to the parent's ZeroMQ threads,
  // which do not exist here: closing them would wait forever, so they are
  // abandoned and this process starts afresh.
  void adoptProcess() {
    pid_t pid = ::getpid();
    if (owner_ == pid) return;
    // Kept reachable rather than leaked, so that leak checkers do not count
    // this deliberate abandonment against the child.
    static auto* abandoned = new std::vector<std::unique_ptr<ZMQSocket>>();
    for (Peer& peer : peers_) abandoned->push_back(std::move(peer.socket));
    peers_.clear();
    listed_ = false;
    owner_ = pid;
  }

  void refresh() {
    std::string dir = labelChangeListenerDir();
    if (dir != dir_) {
      dropAll();
      dir_ = dir;
      listed_ = false;
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) {
      // No listener has ever set up here.
      dropAll();
      listed_ = false;
      return;
    }
    if (!listed_ || toNs(st.st_mtim) != toNs(listedMtime_) ||
        listedAtNs_ - toNs(listedMtime_) <= kMtimeMarginNs) {
      rescan(st);
    }
    dropDeadPeers();
  }

  // A listener that dies leaves its endpoint behind and the directory as it
  // was; messages queued for it would only hold up our exit for the linger.
  void dropDeadPeers() {
    if (peers_.empty()) return;
    int64_t now = nowNs();
    if (now - peersCheckedNs_ < kPeerCheckIntervalNs) return;
    peersCheckedNs_ = now;
    for (size_t i = 0; i < peers_.size();) {
      std::string base = dir_ + "/" + peers_[i].name;
      if (listenerAlive(base + kLockSuffix)) {
        ++i;
        continue;
      }
      ZLOG_DEBUG("label change listener %s has gone away", peers_[i].name.c_str());
      dropPeer(i, true);
      ::unlink((base + kEndpointSuffix).c_str());
      ::unlink((base + kLockSuffix).c_str());
    }
  }

  void rescan(const struct stat& st) {
    listedAtNs_ = nowNs();
    listedMtime_ = st.st_mtim;
    listed_ = true;
    std::set<std::string> endpoints;
    std::set<std::string> locks;
    DIR* dir = ::opendir(dir_.c_str());
    if (dir == nullptr) {
      ZLOG_ERROR("cannot list label change listeners in %s: %s", dir_.c_str(),
                 std::strerror(errno));
      return;
    }
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (endsWith(name, kEndpointSuffix)) {
        endpoints.insert(name.substr(0, name.size() - std::strlen(kEndpointSuffix)));
      } else if (endsWith(name, kLockSuffix)) {
        locks.insert(name.substr(0, name.size() - std::strlen(kLockSuffix)));
      }
    }
    ::closedir(dir);

    for (size_t i = 0; i < peers_.size();) {
      // A listener that removed its endpoint has gone away on purpose.
      if (endpoints.count(peers_[i].name) == 0) {
        dropPeer(i, true);
      } else {
        ++i;
      }
    }
    for (const std::string& name : endpoints) {
      if (connected(name)) continue;
      std::string base = dir_ + "/" + name;
      if (listenerAlive(base + kLockSuffix)) {
        connectPeer(name, base + kEndpointSuffix);
        continue;
      }
      ::unlink((base + kEndpointSuffix).c_str());
      ::unlink((base + kLockSuffix).c_str());
      ZLOG_DEBUG("removed the endpoint of dead listener %s", name.c_str());
    }
    for (const std::string& name : locks) {
      if (endpoints.count(name) != 0) continue;
      std::string lockPath = dir_ + "/" + name + kLockSuffix;
      struct stat lockStat;
      if (::lstat(lockPath.c_str(), &lockStat) != 0) continue;
      if (time(nullptr) - lockStat.st_mtime < kOrphanLockAgeS) continue;
      if (!listenerAlive(lockPath)) ::unlink(lockPath.c_str());
    }
  }

  bool connected(const std::string& name) const {
    for (const Peer& peer : peers_) {
      if (peer.name == name) return true;
    }
    return false;
  }

  void connectPeer(const std::string& name, const std::string& endpointPath) {
    try {
      auto socket = std::make_unique<ZMQSocket>(ZMQSocket::PUSH);
      socket->setOption(ZMQ_LINGER, kLingerMs);
      socket->setOption(ZMQ_SNDHWM, kSendHighWater);
      socket->setOption(ZMQ_SNDTIMEO, kSendTimeoutMs);
      socket->connect("ipc://" + endpointPath);
      peers_.push_back(Peer{name, std::move(socket)});
    } catch (const std::exception& e) {
      ZLOG_ERROR("cannot connect to label change listener %s: %s", endpointPath.c_str(), e.what());
    }
  }

  void dropPeer(size_t index, bool discardQueued) {
    if (discardQueued) peers_[index].socket->setOption(ZMQ_LINGER, 0);
    peers_.erase(peers_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  void dropAll() {
    while (!peers_.empty()) dropPeer(peers_.size() - 1, true);
  }

  std::mutex mutex_;
  pid_t owner_ = 0;
  std::string dir_;
  bool listed_ = false;
  timespec listedMtime_{};
  int64_t listedAtNs_ = 0;
  int64_t peersCheckedNs_ = 0;
  std::vector<Peer> peers_;
};

}  // namespace

void publishLabelChange(const std::string& message) {
  try {
    Publisher::instance().publish(message);
  } catch (const std::exception& e) {
    ZLOG_ERROR("label change message not published: %s", e.what());
  }
}

void closeLabelChangePublisher() {
  try {
    Publisher::instance().close();
  } catch (const std::exception& e) {
    ZLOG_ERROR("closing the label change publisher failed: %s", e.what());
  }
}

std::string labelChangeListenerDir() { return stateDirectory() + "/listeners"; }

LabelChangeListener::LabelChangeListener() = default;

LabelChangeListener::~LabelChangeListener() {
  // Endpoint first: a publisher that finds a lock without an endpoint leaves it
  // alone, while an endpoint without a lock would be taken for a dead one.
  if (socket_) {
    ::unlink(endpointPath_.c_str());
    socket_.reset();
  }
  if (lockFd_ >= 0) {
    ::unlink(lockPath_.c_str());
    ::close(lockFd_);
  }
}

int LabelChangeListener::subscribe(const std::string& topic) {
  if (!socket_) {
    std::string stateDir = stateDirectory();
    std::string dir = labelChangeListenerDir();
    if (!makeDirectory(stateDir, 0700) || !makeDirectory(dir, 0700)) {
      ZLOG_ERROR("cannot create the label change listener directory %s: %s", dir.c_str(),
                 std::strerror(errno));
      return -1;
    }
    uint64_t nonce = 0;
    if (::getrandom(&nonce, sizeof nonce, 0) != static_cast<ssize_t>(sizeof nonce)) {
      nonce = static_cast<uint64_t>(nowNs());
    }
    char name[64];
    std::snprintf(name, sizeof name, "%d-%016" PRIx64, static_cast<int>(::getpid()), nonce);
    std::string base = dir + "/" + name;
    std::string endpointPath = base + kEndpointSuffix;
    if (endpointPath.size() >= sizeof(sockaddr_un{}.sun_path)) {
      ZLOG_ERROR("label change endpoint path too long (%zu bytes, at most %zu): %s",
                 endpointPath.size(), sizeof(sockaddr_un{}.sun_path) - 1, endpointPath.c_str());
      return -1;
    }

    // The lock is held before the endpoint exists, so that no publisher ever
    // sees an endpoint whose lock is free while its listener lives.
    std::string lockPath = base + kLockSuffix;
    int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      ZLOG_ERROR("cannot create label change lock file %s: %s", lockPath.c_str(),
                 std::strerror(errno));
      return -1;
    }
    if (::flock(fd, LOCK_EX) != 0) {
      ZLOG_ERROR("cannot lock %s: %s", lockPath.c_str(), std::strerror(errno));
      ::unlink(lockPath.c_str());
      ::close(fd);
      return -1;
    }
    try {
      auto socket = std::make_unique<ZMQSocket>(ZMQSocket::PULL);
      socket->setOption(ZMQ_LINGER, 0);
      socket->setOption(ZMQ_RCVHWM, kReceiveHighWater);
      socket->bind("ipc://" + endpointPath);
      socket_ = std::move(socket);
    } catch (const std::exception& e) {
      ZLOG_ERROR("cannot bind label change endpoint %s: %s", endpointPath.c_str(), e.what());
      ::unlink(lockPath.c_str());
      ::close(fd);
      return -1;
    }
    lockFd_ = fd;
    lockPath_ = lockPath;
    endpointPath_ = endpointPath;
  }
  topics_.push_back(topic);
  return 0;
}

int LabelChangeListener::receive(std::string& text) {
  if (!socket_) {
    ZLOG_ERROR("receiving label change messages without a subscription");
    return -1;
  }
  for (;;) {
    // Waiting for readiness rather than in a blocking receive lets us resume
    // after a stop and continue (^Z, fg), which interrupts the wait even
    // without a signal handler.
    std::string error;
    if (!socket_->waitReadable(error)) {
      ZLOG_ERROR("waiting for label change messages failed: %s", error.c_str());
      return -1;
    }
    try {
      text = socket_->recv();
    } catch (const std::exception& e) {
      ZLOG_ERROR("receiving a label change message failed: %s", e.what());
      return -1;
    }
    if (matches(text)) return 0;
  }
}

bool LabelChangeListener::matches(const std::string& text) const {
  for (const std::string& topic : topics_) {
    if (text.compare(0, topic.size(), topic) == 0) return true;
  }
  return false;
}

}  // namespace zorv::labelmgr

#include "labelmgr/change_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>

#include "labelmgr/change_message.h"
#include "labelmgr/listener_dir.h"
#include "labelmgr/push_connection.h"
#include "labelmgr/state_db.h"
#include "log/logger.h"
#include "msg/zmq_socket.h"

namespace zorv::labelmgr {
namespace {

constexpr char kListenerDir[] = "listeners";

// How long closing waits for queued messages to leave, for all listeners
// together. Messages wait only when a listener's socket buffer is full, and
// a listener that stopped reading cannot hold us longer than this.
constexpr int kLingerMs = 200;
constexpr int kReceiveHighWater = 1000000;
// Directory timestamps are only as fine as the file system's clock (a whole
// second on some). Until a listing is this much younger than the mtime it saw,
// an unchanged mtime does not prove that nothing was added since.
constexpr int64_t kMtimeMarginNs = 2'000'000'000;
// How often a publisher makes sure the listeners it is connected to still live.
constexpr int64_t kPeerCheckIntervalNs = 1'000'000'000;

int64_t toNs(const timespec& t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; }

int64_t nowNs() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return toNs(t);
}

int64_t monotonicNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return toNs(t);
}

// The publishing side of one process: one connection per live listener,
// speaking ZeroMQ's wire protocol itself (push_connection.h), so that it
// needs no thread and a message costs one write per listener. Connections
// stay open across messages and are drained at exit within one bounded wait.
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
    if (peers_.empty()) return;
    std::string text = escapeMessageField(message);
    for (size_t i = 0; i < peers_.size();) {
      if (peers_[i].connection.send(text)) {
        ++i;
        continue;
      }
      ZLOG_ERROR("label change message not delivered to listener %s: %s", peers_[i].name.c_str(),
                 peers_[i].connection.pendingBytes() > PushConnection::kMaxPendingBytes
                     ? "it does not read its messages"
                     : "it has gone away");
      dropPeer(i);
    }
    settle(true);
  }

  void close() {
    std::lock_guard<std::mutex> lock(mutex_);
    adoptProcess();
    closeAll();
  }

 private:
  struct Peer {
    std::string name;
    PushConnection connection;
    bool fresh = true;  // connected since the last message
  };

  // The logger is built before this object so that it is destroyed after it:
  // our destructor may still log.
  Publisher() { Logger::getInstance(); }
  ~Publisher() {
    std::lock_guard<std::mutex> lock(mutex_);
    adoptProcess();
    closeAll();
  }

  // Connections inherited through fork() are the parent's: a message written
  // here could tear one of its messages apart, so the child only closes its
  // copies and starts afresh.
  void adoptProcess() {
    pid_t pid = ::getpid();
    if (owner_ == pid) return;
    peers_.clear();
    listed_ = false;
    owner_ = pid;
  }

  // Waits for queued messages to leave (at most the linger, for all
  // listeners together), then forgets the listing so that the next message
  // starts afresh.
  void closeAll() {
    settle(false);
    peers_.clear();
    listed_ = false;
    dir_.fd.reset();
  }

  // Waits at most the linger, on all connections at once, until they have
  // settled: every one (`freshOnly` false) or those connected for the
  // message just sent, whose listeners have yet to answer the handshake
  // before they take it. A long-lived process has no thread to send it
  // later, and a listener that does not answer in time (stopped) is not
  // waited for again.
  void settle(bool freshOnly) {
    int64_t deadline = monotonicNs() + int64_t{kLingerMs} * 1'000'000;
    std::vector<pollfd> waits;
    std::vector<PushConnection*> waiting;
    for (;;) {
      waits.clear();
      waiting.clear();
      for (Peer& peer : peers_) {
        if (peer.connection.settled() || (freshOnly && !peer.fresh)) continue;
        waits.push_back(pollfd{peer.connection.fd(), peer.connection.wantedEvents(), 0});
        waiting.push_back(&peer.connection);
      }
      int64_t leftMs = (deadline - monotonicNs()) / 1'000'000;
      if (waits.empty() || leftMs <= 0) break;
      int ready = ::poll(waits.data(), waits.size(), static_cast<int>(leftMs));
      if (ready < 0 && errno != EINTR) break;
      for (size_t i = 0; i < waits.size(); ++i) {
        if (waits[i].revents != 0) waiting[i]->progress();
      }
    }
    for (Peer& peer : peers_) peer.fresh = false;
  }

  void refresh() {
    std::string path = stateDirectory() + "/" + kListenerDir;
    if (path != dirPath_) {
      peers_.clear();
      dirPath_ = path;
      listed_ = false;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
      // No listener has ever set up here.
      peers_.clear();
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
      if (listenerAlive(dir_, peers_[i].name)) {
        ++i;
        continue;
      }
      ZLOG_DEBUG("label change listener %s has gone away", peers_[i].name.c_str());
      removeListener(dir_, peers_[i].name);
      dropPeer(i);
    }
  }

  void rescan(const struct stat& st) {
    listedAtNs_ = nowNs();
    listedMtime_ = st.st_mtim;
    listed_ = true;
    // The directory is checked anew at every listing: a state directory that
    // became unsafe gets no more messages.
    StateDir state;
    StateDir listeners;
    std::string error;
    if (openStateDir(stateDirectory(), false, &state, &error) != 0 ||
        openStateSubdir(state, kListenerDir, false, &listeners, &error) != 0) {
      if (error != lastError_) ZLOG_ERROR("label change messages not sent: %s", error.c_str());
      lastError_ = error;
      peers_.clear();
      return;
    }
    lastError_.clear();
    dir_ = std::move(listeners);
    std::vector<std::string> live = scanListeners(dir_);
    std::sort(live.begin(), live.end());
    for (size_t i = 0; i < peers_.size();) {
      // A listener that removed its endpoint has gone away on purpose.
      if (std::binary_search(live.begin(), live.end(), peers_[i].name)) {
        ++i;
      } else {
        dropPeer(i);
      }
    }
    std::vector<std::string> known;
    for (const Peer& peer : peers_) known.push_back(peer.name);
    std::sort(known.begin(), known.end());
    for (const std::string& name : live) {
      if (!std::binary_search(known.begin(), known.end(), name)) connectPeer(name);
    }
  }

  void connectPeer(const std::string& name) {
    std::string endpoint = dir_.path + "/" + name + kListenerEndpointSuffix;
    Peer peer{name, PushConnection(), true};
    std::string error;
    if (!peer.connection.connect(endpoint, &error)) {
      ZLOG_ERROR("cannot connect to label change listener %s: %s", endpoint.c_str(), error.c_str());
      return;
    }
    peers_.push_back(std::move(peer));
  }

  // Whatever was queued for a dropped listener is discarded.
  void dropPeer(size_t index) { peers_.erase(peers_.begin() + static_cast<std::ptrdiff_t>(index)); }

  std::mutex mutex_;
  pid_t owner_ = 0;
  std::string dirPath_;
  StateDir dir_;
  std::string lastError_;
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

std::string labelChangeListenerDir() { return stateDirectory() + "/" + kListenerDir; }

LabelChangeListener::LabelChangeListener() = default;

LabelChangeListener::~LabelChangeListener() {
  // Endpoint first: a publisher that finds a lock without an endpoint leaves it
  // alone, while an endpoint without a lock would be taken for a dead one.
  if (socket_) {
    ::unlink(endpointPath_.c_str());
    socket_.reset();
  }
  if (lockFd_) ::unlink(lockPath_.c_str());
}

int LabelChangeListener::subscribe(const std::string& topic) {
  if (!socket_) {
    StateDir state;
    StateDir dir;
    std::string error;
    if (openStateDir(stateDirectory(), true, &state, &error) != 0 ||
        openStateSubdir(state, kListenerDir, true, &dir, &error) != 0) {
      ZLOG_ERROR("cannot set up a label change listener: %s", error.c_str());
      return -1;
    }
    std::string name = newListenerName();
    std::string base = dir.path + "/" + name;
    std::string endpointPath = base + kListenerEndpointSuffix;
    if (endpointPath.size() >= sizeof(sockaddr_un{}.sun_path)) {
      ZLOG_ERROR("label change endpoint path too long (%zu bytes, at most %zu): %s",
                 endpointPath.size(), sizeof(sockaddr_un{}.sun_path) - 1, endpointPath.c_str());
      return -1;
    }

    // The lock is held before the endpoint exists, so that no publisher ever
    // sees an endpoint whose lock is free while its listener lives.
    std::string lockPath = base + kListenerLockSuffix;
    UniqueFd lock;
    if (openStateFile(dir, name + kListenerLockSuffix, O_RDWR | O_CREAT | O_EXCL, 0600, &lock,
                      &error) != 0) {
      ZLOG_ERROR("cannot create label change lock file: %s", error.c_str());
      return -1;
    }
    if (::flock(lock.get(), LOCK_EX) != 0) {
      ZLOG_ERROR("cannot lock %s: %s", lockPath.c_str(), std::strerror(errno));
      ::unlink(lockPath.c_str());
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
      return -1;
    }
    lockFd_ = std::move(lock);
    lockPath_ = lockPath;
    endpointPath_ = endpointPath;
  }
  // Messages arrive escaped; so is the topic, which keeps prefixes matching.
  topics_.push_back(escapeMessageField(topic));
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

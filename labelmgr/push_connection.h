// One publisher-side connection to a listener's endpoint, speaking the
// ZeroMQ wire protocol (3.1, NULL mechanism) as a PUSH peer, so that the
// listener's PULL socket takes it like any other.
//
// It needs no messaging context and no thread: the greeting and the READY
// command leave in one write as soon as it connects, and every message in
// one more. A listener refuses a message that comes before it has sent its
// own greeting and READY, so messages are held until those arrived; then
// (and whenever the socket takes more) they leave. Nothing ever blocks:
// Publisher waits for all its connections to settle at once with one poll().
// A listener that has gone away shows as failed().
#ifndef ZORV_LABELMGR_PUSH_CONNECTION_H_
#define ZORV_LABELMGR_PUSH_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/unique_fd.h"

namespace zorv::labelmgr {

class PushConnection {
 public:
  /// Connects to the listening socket at `path` (waiting at most a short
  /// while when its backlog is full). Answers false and sets `*error` when
  /// that fails; the connection is then unusable.
  bool connect(const std::string& path, std::string* error);

  /// Queues one message and writes what the socket takes. False when the
  /// listener has gone away or more than kMaxPendingBytes wait unwritten
  /// (it stopped reading); the connection is then failed.
  bool send(const std::string& message);

  /// Nothing is left to write and the listener's greeting and READY have
  /// arrived (or the connection failed): it may be closed.
  bool settled() const { return failed_ || (pendingBytes() == 0 && handshakeDone()); }
  /// The poll() events settling waits for.
  short wantedEvents() const;
  /// Writes and reads what the socket allows without waiting.
  void progress();

  bool failed() const { return failed_; }
  size_t pendingBytes() const { return pending_.size() - written_ + held_.size(); }
  int fd() const { return fd_.get(); }

  /// A listener that let this much wait unread is dropped.
  static constexpr size_t kMaxPendingBytes = 32u << 20;

 private:
  bool flush();
  bool handshakeDone() const;

  UniqueFd fd_;
  std::string received_;  // the listener's greeting and READY, as they come
  std::string pending_;   // bytes to write, of which the first written_ are sent
  std::string held_;      // messages queued before the listener's handshake
  size_t written_ = 0;
  bool failed_ = false;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_PUSH_CONNECTION_H_

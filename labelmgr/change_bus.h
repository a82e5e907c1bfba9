// Label-change messages of our label manager library.
//
// There is no daemon. Each listener binds its own ipc endpoint (a PULL socket)
// in the "listeners" directory of the state directory and holds an flock on a
// lock file beside it for as long as it lives. A publishing process lists that
// directory, clears away the endpoints of dead listeners (their lock can be
// taken), and keeps one connection per live listener (push_connection.h) for
// the rest of the process, so that every listener sees every message published after its
// subscription returned, in the order each publisher sent them. Listeners filter
// by topic (a byte prefix of the text) themselves. Messages travel escaped
// (change_message.h), and topics are escaped the same way.
//
// Thread safety: publishLabelChange and closeLabelChangePublisher may be called
// from any thread; a LabelChangeListener is used by one thread at a time.
#ifndef ZORV_LABELMGR_CHANGE_BUS_H_
#define ZORV_LABELMGR_CHANGE_BUS_H_

#include <memory>
#include <string>
#include <vector>

#include "common/unique_fd.h"

class ZMQSocket;

namespace zorv::labelmgr {

/// Publishes one label-change message ("file ..." or "pkg ...", raw: control
/// characters and backslashes in it are escaped here) to every listener.
/// Never throws and never fails the change: an undeliverable message is
/// logged and dropped, and a listener that lets 32 MB wait unread is dropped
/// for the rest of the process. Costs one stat() when nothing changed among
/// the listeners since the previous call; waits (at most 0.2 s, for all of
/// them at once) only for the handshake of listeners it newly connected to.
void publishLabelChange(const std::string& message);

/// Closes this process's connections to listeners, waiting at most 0.2 s in
/// all for queued messages to leave. The next publishLabelChange() opens them
/// again. Called on its own at process exit.
void closeLabelChangePublisher();

/// Where listener endpoints and their lock files live.
std::string labelChangeListenerDir();

/// One listener: its endpoint, its lock and its topics.
class LabelChangeListener {
 public:
  LabelChangeListener();
  /// Removes the endpoint and the lock file.
  ~LabelChangeListener();
  LabelChangeListener(const LabelChangeListener&) = delete;
  LabelChangeListener& operator=(const LabelChangeListener&) = delete;

  /// Adds a topic ("" receives everything). The first call creates the state
  /// directories (0700), takes the lock and binds the endpoint; messages
  /// published after it returns are received. 0 on success, -1 (logged) when
  /// the endpoint cannot be set up.
  int subscribe(const std::string& topic);

  /// Blocks until a message matching a topic arrives and stores it in `text`.
  /// Interrupted waits are resumed. 0 on success, -1 (logged) when not
  /// subscribed or when receiving fails.
  int receive(std::string& text);

  /// The endpoint's file, "" before the first subscribe().
  const std::string& endpointPath() const { return endpointPath_; }

 private:
  bool matches(const std::string& text) const;

  std::vector<std::string> topics_;
  std::unique_ptr<ZMQSocket> socket_;
  zorv::UniqueFd lockFd_;
  std::string endpointPath_;
  std::string lockPath_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_CHANGE_BUS_H_

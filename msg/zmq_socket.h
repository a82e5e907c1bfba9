// One ZeroMQ context and one socket, for exchanging text messages.
//
// Thread safety: one object is used by one thread at a time.
// libzmq is opened when the first socket is made, not when the program starts.
#ifndef ZORV_MSG_ZMQ_SOCKET_H_
#define ZORV_MSG_ZMQ_SOCKET_H_

#include <string>

#include "log/export.h"

class ZORV_EXPORT ZMQSocket {
 public:
  /// ZeroMQ's own socket-type numbers.
  enum socketType { PAIR = 0, PUB, SUB, REQ, REP, DEALER, ROUTER, PULL, PUSH, XPUB, XSUB, STREAM };

  /// Throws std::runtime_error "Failed to create ZMQ context." or
  /// "Failed to create ZMQ socket.".
  explicit ZMQSocket(socketType type);
  /// Closes the socket, then destroys the context.
  ~ZMQSocket();
  ZMQSocket(const ZMQSocket&) = delete;
  ZMQSocket& operator=(const ZMQSocket&) = delete;

  /// Throws "Failed to bind socket.".
  void bind(const std::string& endpoint);
  /// Throws "Failed to connect socket.".
  void connect(const std::string& endpoint);
  /// Sends one part (ZMQ_SNDMORE when `more`); throws "Failed to send message.".
  void send(const std::string& message, bool more = false);
  /// Blocks for the next part; throws "Failed to receive message.".
  std::string recv();
  /// Adds a prefix filter ("" receives all); throws
  /// "Failed to set subscription filter.".
  void subscribe(const std::string& topic);

  /// Sets an integer socket option (ZMQ_LINGER, ZMQ_SNDHWM...); false when
  /// ZeroMQ refuses it.
  bool setOption(int option, int value);
  /// Blocks until a message can be received, going on waiting after an
  /// interruption (a signal, a stop and continue); false with ZeroMQ's reason
  /// in `error` when waiting fails.
  bool waitReadable(std::string& error);

  /// The raw ZeroMQ socket, for options and polling this wrapper does not offer.
  void* handle() const { return socket_; }

 private:
  void* context_ = nullptr;
  void* socket_ = nullptr;
};

#endif  // ZORV_MSG_ZMQ_SOCKET_H_

#include "msg/zmq_socket.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "msg/zmq_api_internal.h"

namespace {

/// Closes a message on every way out of the scope that initialised it.
class MessageGuard {
 public:
  explicit MessageGuard(zmq_msg_t* message) : message_(message) {}
  ~MessageGuard() { zmqApi()->msg_close(message_); }
  MessageGuard(const MessageGuard&) = delete;
  MessageGuard& operator=(const MessageGuard&) = delete;

 private:
  zmq_msg_t* message_;
};

// The socket types are passed to libzmq as they are.
static_assert(ZMQSocket::PAIR == ZMQ_PAIR && ZMQSocket::PUB == ZMQ_PUB &&
                  ZMQSocket::SUB == ZMQ_SUB && ZMQSocket::PULL == ZMQ_PULL &&
                  ZMQSocket::PUSH == ZMQ_PUSH && ZMQSocket::STREAM == ZMQ_STREAM,
              "socket types numbered as libzmq numbers them");

}  // namespace

ZMQSocket::ZMQSocket(socketType type) {
  // Without libzmq there is no context to make; the loader has said why.
  const ZmqApi* zmq = zmqApi();
  if (zmq != nullptr) context_ = zmq->ctx_new();
  if (context_ == nullptr) throw std::runtime_error("Failed to create ZMQ context.");
  socket_ = zmq->socket(context_, type);
  if (socket_ == nullptr) {
    // The destructor does not run for a half-built object.
    zmq->ctx_destroy(context_);
    context_ = nullptr;
    throw std::runtime_error("Failed to create ZMQ socket.");
  }
}

ZMQSocket::~ZMQSocket() {
  // A context waits for its open sockets when destroyed, so the socket goes
  // first.
  // Only a socket built with a loaded library has anything to release.
  if (socket_ != nullptr) zmqApi()->close(socket_);
  if (context_ != nullptr) zmqApi()->ctx_destroy(context_);
}

void ZMQSocket::bind(const std::string& endpoint) {
  if (zmqApi()->bind(socket_, endpoint.c_str()) != 0)
    throw std::runtime_error("Failed to bind socket.");
}

void ZMQSocket::connect(const std::string& endpoint) {
  if (zmqApi()->connect(socket_, endpoint.c_str()) != 0)
    throw std::runtime_error("Failed to connect socket.");
}

void ZMQSocket::send(const std::string& message, bool more) {
  const ZmqApi& zmq = *zmqApi();
  zmq_msg_t part;
  if (zmq.msg_init_size(&part, message.size()) != 0)
    throw std::runtime_error("Failed to send message.");
  MessageGuard guard(&part);
  if (!message.empty()) memcpy(zmq.msg_data(&part), message.data(), message.size());
  if (zmq.sendmsg(socket_, &part, more ? ZMQ_SNDMORE : 0) == -1)
    throw std::runtime_error("Failed to send message.");
}

std::string ZMQSocket::recv() {
  const ZmqApi& zmq = *zmqApi();
  zmq_msg_t part;
  zmq.msg_init(&part);
  MessageGuard guard(&part);
  if (zmq.recvmsg(socket_, &part, 0) == -1) throw std::runtime_error("Failed to receive message.");
  size_t size = zmq.msg_size(&part);
  if (size == 0) return "";
  return std::string(static_cast<const char*>(zmq.msg_data(&part)), size);
}

void ZMQSocket::subscribe(const std::string& topic) {
  if (zmqApi()->setsockopt(socket_, ZMQ_SUBSCRIBE, topic.data(), topic.size()) != 0)
    throw std::runtime_error("Failed to set subscription filter.");
}

bool ZMQSocket::setOption(int option, int value) {
  return zmqApi()->setsockopt(socket_, option, &value, sizeof value) == 0;
}

bool ZMQSocket::waitReadable(std::string& error) {
  const ZmqApi& zmq = *zmqApi();
  for (;;) {
    zmq_pollitem_t item{socket_, 0, ZMQ_POLLIN, 0};
    if (zmq.poll(&item, 1, -1) < 0) {
      if (zmq.errnum() == EINTR) continue;
      error = zmq.strerror(zmq.errnum());
      return false;
    }
    if ((item.revents & ZMQ_POLLIN) != 0) return true;
  }
}

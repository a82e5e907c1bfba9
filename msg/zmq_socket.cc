#include "msg/zmq_socket.h"

#include <cstring>
#include <stdexcept>

#include <zmq.h>

namespace {

/// Closes a message on every way out of the scope that initialised it.
class MessageGuard {
 public:
  explicit MessageGuard(zmq_msg_t* message) : message_(message) {}
  ~MessageGuard() { zmq_msg_close(message_); }
  MessageGuard(const MessageGuard&) = delete;
  MessageGuard& operator=(const MessageGuard&) = delete;

 private:
  zmq_msg_t* message_;
};

}  // namespace

ZMQSocket::ZMQSocket(socketType type) {
  context_ = zmq_ctx_new();
  if (context_ == nullptr) throw std::runtime_error("Failed to create ZMQ context.");
  socket_ = zmq_socket(context_, type);
  if (socket_ == nullptr) {
    // The destructor does not run for a half-built object.
    zmq_ctx_destroy(context_);
    context_ = nullptr;
    throw std::runtime_error("Failed to create ZMQ socket.");
  }
}

ZMQSocket::~ZMQSocket() {
  // A context waits for its open sockets when destroyed, so the socket goes
  // first.
  if (socket_ != nullptr) zmq_close(socket_);
  if (context_ != nullptr) zmq_ctx_destroy(context_);
}

void ZMQSocket::bind(const std::string& endpoint) {
  if (zmq_bind(socket_, endpoint.c_str()) != 0) throw std::runtime_error("Failed to bind socket.");
}

void ZMQSocket::connect(const std::string& endpoint) {
  if (zmq_connect(socket_, endpoint.c_str()) != 0)
    throw std::runtime_error("Failed to connect socket.");
}

void ZMQSocket::send(const std::string& message, bool more) {
  zmq_msg_t part;
  if (zmq_msg_init_size(&part, message.size()) != 0)
    throw std::runtime_error("Failed to send message.");
  MessageGuard guard(&part);
  if (!message.empty()) memcpy(zmq_msg_data(&part), message.data(), message.size());
  if (zmq_sendmsg(socket_, &part, more ? ZMQ_SNDMORE : 0) == -1)
    throw std::runtime_error("Failed to send message.");
}

std::string ZMQSocket::recv() {
  zmq_msg_t part;
  zmq_msg_init(&part);
  MessageGuard guard(&part);
  if (zmq_recvmsg(socket_, &part, 0) == -1) throw std::runtime_error("Failed to receive message.");
  size_t size = zmq_msg_size(&part);
  if (size == 0) return "";
  return std::string(static_cast<const char*>(zmq_msg_data(&part)), size);
}

void ZMQSocket::subscribe(const std::string& topic) {
  if (zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, topic.data(), topic.size()) != 0)
    throw std::runtime_error("Failed to set subscription filter.");
}

#include "labelmgr/push_connection.h"

#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace zorv::labelmgr {
namespace {

// How long a connect waits for room in a listener's backlog.
constexpr int kConnectTimeoutMs = 100;
constexpr size_t kGreetingSize = 64;

// The greeting: signature (the padding as libzmq writes it, which peers of the
// first protocol version read as a length of one), version 3.1, the NULL
// mechanism, not a server.
std::string greeting() {
  std::string bytes(64, '\0');
  bytes[0] = '\xff';
  bytes[8] = '\x01';
  bytes[9] = '\x7f';
  bytes[10] = 3;
  bytes[11] = 1;
  std::memcpy(&bytes[12], "NULL", 4);
  return bytes;
}

// The READY command naming our socket type.
std::string ready() {
  std::string body;
  body += '\x05';
  body += "READY";
  body += '\x0b';
  body += "Socket-Type";
  body += std::string("\0\0\0\x04", 4);
  body += "PUSH";
  return std::string("\x04", 1) + static_cast<char>(body.size()) + body;
}

void appendFrame(std::string* out, const std::string& message) {
  if (message.size() <= 255) {
    *out += '\0';
    *out += static_cast<char>(message.size());
  } else {
    *out += '\x02';
    uint64_t size = message.size();
    for (int shift = 56; shift >= 0; shift -= 8) *out += static_cast<char>(size >> shift);
  }
  *out += message;
}

}  // namespace

bool PushConnection::connect(const std::string& path, std::string* error) {
  failed_ = true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    *error = "path too long";
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd_) {
    *error = std::strerror(errno);
    return false;
  }
  // A blocking connect with a timeout: a full backlog is waited out briefly,
  // where a non-blocking one would fail at once.
  timeval timeout{0, kConnectTimeoutMs * 1000};
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *error = std::strerror(errno);
    fd_.reset();
    return false;
  }
  pending_ = greeting() + ready();
  written_ = 0;
  failed_ = false;
  return true;
}

bool PushConnection::send(const std::string& message) {
  if (failed_) return false;
  if (written_ > 0 && written_ == pending_.size()) {
    pending_.clear();
    written_ = 0;
  }
  appendFrame(handshakeDone() ? &pending_ : &held_, message);
  progress();
  if (pendingBytes() > kMaxPendingBytes) failed_ = true;
  return !failed_;
}

bool PushConnection::flush() {
  while (written_ < pending_.size()) {
    ssize_t n = ::send(fd_.get(), pending_.data() + written_, pending_.size() - written_,
                       MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      written_ += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    failed_ = true;  // EPIPE, ECONNRESET: the listener has gone away
    return false;
  }
  // Most of the time everything left at once: keep the buffer small.
  if (pending_.size() > 4096 && written_ == pending_.size()) {
    pending_.clear();
    pending_.shrink_to_fit();
    written_ = 0;
  }
  return true;
}

bool PushConnection::handshakeDone() const {
  // 64 bytes of greeting, then the READY command: flags, size, body.
  if (received_.size() < kGreetingSize + 2) return false;
  auto flags = static_cast<unsigned char>(received_[kGreetingSize]);
  if ((flags & 0x02) == 0) {
    return received_.size() >=
           kGreetingSize + 2 + static_cast<unsigned char>(received_[kGreetingSize + 1]);
  }
  if (received_.size() < kGreetingSize + 9) return false;
  uint64_t size = 0;
  for (size_t i = 1; i <= 8; ++i)
    size = size << 8 | static_cast<unsigned char>(received_[kGreetingSize + i]);
  return received_.size() - kGreetingSize - 9 >= size;
}

short PushConnection::wantedEvents() const {
  if (failed_) return 0;
  short events = 0;
  if (written_ < pending_.size()) events |= POLLOUT;
  if (!handshakeDone()) events |= POLLIN;
  return events;
}

void PushConnection::progress() {
  if (failed_) return;
  char buffer[512];
  while (!handshakeDone()) {
    ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n > 0) {
      received_.append(buffer, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    failed_ = true;  // closed by the listener, or an error
    return;
  }
  if (handshakeDone() && !held_.empty()) {
    pending_ += held_;
    held_.clear();
    held_.shrink_to_fit();
  }
  flush();
}

}  // namespace zorv::labelmgr

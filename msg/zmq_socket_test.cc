#include "msg/zmq_socket.h"

#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <zmq.h>

#include "testing/test_util.h"

using zorv_testing::ScopedTempDir;

namespace {

// The text of the std::runtime_error that `action` throws, or "" if none.
std::string runtimeErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

void setReceiveTimeout(ZMQSocket& socket, int milliseconds) {
  zmq_setsockopt(socket.handle(), ZMQ_RCVTIMEO, &milliseconds, sizeof(milliseconds));
}

// Peers meet over ipc (each object has its own context). A subscription takes
// effect late: probe until one arrives, then drain the probes in flight.
void connectSubscriber(ZMQSocket& publisher, ZMQSocket& subscriber, const std::string& endpoint,
                       const std::string& topic) {
  publisher.bind(endpoint);
  subscriber.connect(endpoint);
  subscriber.subscribe(topic);
  setReceiveTimeout(subscriber, 100);
  bool joined = false;
  for (int attempt = 0; attempt < 50 && !joined; ++attempt) {
    publisher.send(topic + "probe");
    joined = runtimeErrorOf([&] { subscriber.recv(); }).empty();
  }
  ASSERT_TRUE(joined) << "the subscription never reached the publisher";
  while (runtimeErrorOf([&] { subscriber.recv(); }).empty()) {
  }
  setReceiveTimeout(subscriber, 5000);
}

}  // namespace

TEST(ZMQSocketTest, PublishSubscribeKeepsEveryByteAndFiltersTopics) {
  ScopedTempDir dir;
  ZMQSocket publisher(ZMQSocket::PUB);
  ZMQSocket all(ZMQSocket::SUB);
  ZMQSocket topic(ZMQSocket::SUB);
  // The topic's subscriber first, so that its probes never reach the other.
  connectSubscriber(publisher, topic, "ipc://" + (dir / "topics"), "a");
  connectSubscriber(publisher, all, "ipc://" + (dir / "bus"), "");
  for (const std::string& message :
       {std::string(), std::string("nul\0inside", 10), std::string("A-other-case"),
        std::string("apple"), std::string("a")})
    publisher.send(message);
  EXPECT_EQ("", all.recv());
  EXPECT_EQ(std::string("nul\0inside", 10), all.recv());
  EXPECT_EQ("apple", topic.recv());
  EXPECT_EQ("a", topic.recv());
}

TEST(ZMQSocketTest, FailuresThrowFixedMessages) {
  ZMQSocket pair(ZMQSocket::PAIR);
  EXPECT_EQ("Failed to bind socket.", runtimeErrorOf([&] { pair.bind("not-an-endpoint"); }));
  EXPECT_EQ("Failed to connect socket.", runtimeErrorOf([&] { pair.connect("nowhere://x"); }));
  // A subscriber cannot send: it fails at once instead of blocking.
  ZMQSocket subscriber(ZMQSocket::SUB);
  EXPECT_EQ("Failed to send message.", runtimeErrorOf([&] { subscriber.send("x"); }));
}

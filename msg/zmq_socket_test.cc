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

// Each object has a context of its own, so peers meet over ipc, not inproc.
// A subscriber only gets what is published after its subscription reached
// the publisher: probe until one arrives, then drain the probes in flight.
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

TEST(ZMQSocketTest, PublishSubscribeKeepsEveryByteAndPart) {
  ScopedTempDir dir;
  ZMQSocket publisher(ZMQSocket::PUB);
  ZMQSocket subscriber(ZMQSocket::SUB);
  connectSubscriber(publisher, subscriber, "ipc://" + (dir / "bus"), "");

  publisher.send("");
  publisher.send(std::string("nul\0inside", 10));
  publisher.send("part one", true);
  publisher.send("part two");
  EXPECT_EQ("", subscriber.recv());
  EXPECT_EQ(std::string("nul\0inside", 10), subscriber.recv());
  EXPECT_EQ("part one", subscriber.recv());
  int more = 0;
  size_t size = sizeof(more);
  zmq_getsockopt(subscriber.handle(), ZMQ_RCVMORE, &more, &size);
  EXPECT_EQ(1, more);
  EXPECT_EQ("part two", subscriber.recv());
}

TEST(ZMQSocketTest, SubscriberGetsOnlyItsTopic) {
  ScopedTempDir dir;
  ZMQSocket publisher(ZMQSocket::PUB);
  ZMQSocket subscriber(ZMQSocket::SUB);
  connectSubscriber(publisher, subscriber, "ipc://" + (dir / "topics"), "a");
  for (const char* message : {"b-skipped", "", "A-other-case", "apple", "a"})
    publisher.send(message);
  EXPECT_EQ("apple", subscriber.recv());
  EXPECT_EQ("a", subscriber.recv());
}

TEST(ZMQSocketTest, FailuresThrowFixedMessagesAndKeepTheSocketUsable) {
  ScopedTempDir dir;
  ZMQSocket pair(ZMQSocket::PAIR);
  EXPECT_EQ("Failed to bind socket.", runtimeErrorOf([&] { pair.bind("not-an-endpoint"); }));
  EXPECT_EQ("Failed to connect socket.", runtimeErrorOf([&] { pair.connect("nowhere://x"); }));
  EXPECT_EQ("Failed to set subscription filter.", runtimeErrorOf([&] { pair.subscribe("a"); }));
  pair.bind("ipc://" + (dir / "pair"));
  ZMQSocket peer(ZMQSocket::PAIR);
  peer.connect("ipc://" + (dir / "pair"));
  peer.send("still works");
  setReceiveTimeout(pair, 5000);
  EXPECT_EQ("still works", pair.recv());

  // A request socket must send before it receives, and a subscriber cannot
  // send: both fail at once instead of blocking.
  ZMQSocket request(ZMQSocket::REQ);
  EXPECT_EQ("Failed to receive message.", runtimeErrorOf([&] { request.recv(); }));
  ZMQSocket subscriber(ZMQSocket::SUB);
  EXPECT_EQ("Failed to send message.", runtimeErrorOf([&] { subscriber.send("x"); }));
}

TEST(ZMQSocketTest, ReleasesEverythingAlsoAfterAFailedConstruction) {
  size_t before = zorv_testing::openDescriptorCount();
  EXPECT_EQ("Failed to create ZMQ socket.",
            runtimeErrorOf([] { ZMQSocket socket(static_cast<ZMQSocket::socketType>(99)); }));
  {
    ScopedTempDir dir;
    ZMQSocket publisher(ZMQSocket::PUB);
    ZMQSocket subscriber(ZMQSocket::SUB);
    connectSubscriber(publisher, subscriber, "ipc://" + (dir / "s"), "");
    publisher.send("left unread");
  }
  EXPECT_EQ(before, zorv_testing::openDescriptorCount());
}

#include "labelmgr/change_bus.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli/zorvlabelmgr.h"
#include "testing/test_util.h"

namespace fs = std::filesystem;
using zorv::labelmgr::closeLabelChangePublisher;
using zorv::labelmgr::labelChangeListenerDir;
using zorv::labelmgr::publishLabelChange;
using zorv_testing::ScopedTempDir;

namespace {

constexpr char kPublisherEnv[] = "ZORV_TEST_PUBLISHER";

// When this test program is started as a publisher (kPublisherEnv holds
// "ID COUNT [MAX_MS]"), it publishes COUNT messages cycling through three kinds
// and exits before any test runs, closing the publisher as a real tool run
// would at exit. With MAX_MS it exits 4 when publishing and closing took
// longer than that.
bool runAsPublisherIfAsked() {
  const char* request = std::getenv(kPublisherEnv);
  if (request == nullptr) return false;
  int id = 0;
  int count = 0;
  double maxMs = 0;
  if (std::sscanf(request, "%d %d %lf", &id, &count, &maxMs) < 2) std::exit(2);
  static const char* const kKinds[] = {"file set-oid", "file del-oid", "pkg set-id"};
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    publishLabelChange(std::string(kKinds[i % 3]) + " /t/p" + std::to_string(id) + " " +
                       std::to_string(i));
  }
  closeLabelChangePublisher();
  double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::exit(maxMs > 0 && ms > maxMs ? 4 : 0);
}
const bool kRanAsPublisher = runAsPublisherIfAsked();

pid_t startPublisher(int id, int count, int maxMs = 0) {
  pid_t pid = fork();
  if (pid == 0) {
    std::string request =
        std::to_string(id) + " " + std::to_string(count) + " " + std::to_string(maxMs);
    setenv(kPublisherEnv, request.c_str(), 1);
    execl("/proc/self/exe", "change_bus_publisher", static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// Waits for `pid` at most `limit`; kills it and returns -1 on time-out.
int waitWithin(pid_t pid, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A close that waits for a peer that will never read hangs (ZeroMQ's default
// linger) or at least waits out our bounded one; a prompt close takes a few
// milliseconds. The limit leaves room for a loaded machine.
constexpr double kPromptCloseMs = 2000;

double msSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

using Subscriber = std::unique_ptr<zorv::labelmgr::LabelChangeListener>;

// The handle API has no release call (the tool keeps its handle until exit);
// tests own theirs so that every listener removes its files.
Subscriber newSubscriber() {
  return Subscriber(static_cast<zorv::labelmgr::LabelChangeListener*>(createSubscriber()));
}

// Receives through the library's handle API; "" on failure.
std::string receive(void* subscriber) {
  char* message = nullptr;
  if (recvLabelChangeMsg(subscriber, &message) != 0) return "";
  std::string text = message != nullptr ? message : "";
  std::free(message);
  return text;
}

class ChangeBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(kRanAsPublisher);
    // A lost message blocks a receive for ever; end the program instead.
    alarm(30);
  }
  void TearDown() override {
    closeLabelChangePublisher();
    alarm(0);
  }

  ScopedTempDir tmp_;
  zorv_testing::ScopedEnv stateDir_{"ZORV_LABELMGR_STATE_DIR", tmp_ / "state"};
};

TEST_F(ChangeBusTest, ListenersGetExactlyTheirTopicsFromConcurrentPublishers) {
  Subscriber setOid = newSubscriber();
  Subscriber pkg = newSubscriber();
  Subscriber all = newSubscriber();
  ASSERT_EQ(0, subscribeLabelChangeMsg(setOid.get(), "file set-oid"));
  ASSERT_EQ(0, subscribeLabelChangeMsg(pkg.get(), "pkg"));
  ASSERT_EQ(0, subscribeLabelChangeMsg(all.get(), ""));
  struct stat st;
  ASSERT_EQ(0, stat((tmp_ / "state").c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);

  constexpr int kPublishers = 3;
  constexpr int kCount = 3000;
  std::vector<pid_t> pids;
  for (int id = 0; id < kPublishers; ++id) pids.push_back(startPublisher(id, kCount));
  for (pid_t pid : pids) EXPECT_EQ(0, waitWithin(pid, std::chrono::seconds(30)));

  // A lost message would leave a receive blocked for ever; past the deadline a
  // marker from this process releases it and the counts below fail.
  std::atomic<bool> done{false};
  std::thread watchdog([&done] {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!done) {
      publishLabelChange("file set-oid timeout");
      publishLabelChange("pkg timeout");
    }
  });

  // Per listener and publisher: the sequence numbers received, in order.
  auto collect = [](void* subscriber, int expected, const std::string& kind) {
    std::map<int, std::vector<int>> seen;
    for (int n = 0; n < expected; ++n) {
      std::string text = receive(subscriber);
      if (text.find("timeout") != std::string::npos || text.empty()) break;
      int id = -1;
      int sequence = -1;
      size_t at = text.find(" /t/p");
      if (!kind.empty() && text.compare(0, kind.size(), kind) != 0) {
        ADD_FAILURE() << "unexpected message " << text;
      }
      if (at == std::string::npos ||
          std::sscanf(text.c_str() + at, " /t/p%d %d", &id, &sequence) != 2) {
        ADD_FAILURE() << "malformed message " << text;
        continue;
      }
      seen[id].push_back(sequence);
    }
    return seen;
  };
  auto setOidSeen = collect(setOid.get(), kPublishers * kCount / 3, "file set-oid ");
  auto pkgSeen = collect(pkg.get(), kPublishers * kCount / 3, "pkg ");
  auto allSeen = collect(all.get(), kPublishers * kCount, "");
  done = true;
  watchdog.join();

  for (int id = 0; id < kPublishers; ++id) {
    std::vector<int> setOidWant, pkgWant, allWant;
    for (int i = 0; i < kCount; ++i) {
      allWant.push_back(i);
      if (i % 3 == 0) setOidWant.push_back(i);
      if (i % 3 == 2) pkgWant.push_back(i);
    }
    EXPECT_EQ(setOidWant, setOidSeen[id]) << "publisher " << id;
    EXPECT_EQ(pkgWant, pkgSeen[id]) << "publisher " << id;
    EXPECT_EQ(allWant, allSeen[id]) << "publisher " << id;
  }
}

TEST_F(ChangeBusTest, StaleEndpointsOfDeadListenersAreClearedWithoutStalling) {
  // A listener killed without any cleanup leaves its endpoint and lock file.
  pid_t pid = fork();
  if (pid == 0) {
    Subscriber subscriber = newSubscriber();
    _exit(subscribeLabelChangeMsg(subscriber.get(), "") == 0 ? 0 : 1);
  }
  ASSERT_EQ(0, waitWithin(pid, std::chrono::seconds(10)));
  // And an endpoint whose lock file is gone altogether.
  zorv_testing::writeTextFile(labelChangeListenerDir() + "/1-00.ipc", "");
  ASSERT_EQ(
      3, std::distance(fs::directory_iterator(labelChangeListenerDir()), fs::directory_iterator()));

  Subscriber live = newSubscriber();
  ASSERT_EQ(0, subscribeLabelChangeMsg(live.get(), "file"));

  // A fresh publishing process must find only the live listener: a socket
  // left connected to a dead one would hold its close for the whole linger.
  pid_t publisher = startPublisher(7, 1, 250);
  ASSERT_EQ(0, waitWithin(publisher, std::chrono::seconds(10))) << "4: publishing took too long";
  EXPECT_EQ("file set-oid /t/p7 0", receive(live.get()));

  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(labelChangeListenerDir())) {
    left.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(2u, left.size()) << "only the live listener's endpoint and lock remain";
}

TEST_F(ChangeBusTest, ListenerDyingWhileConnectedIsDropped) {
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  pid_t pid = fork();
  if (pid == 0) {
    Subscriber subscriber = newSubscriber();
    char done = subscribeLabelChangeMsg(subscriber.get(), "") == 0 ? 'y' : 'n';
    (void)!write(ready[1], &done, 1);
    pause();
    _exit(0);
  }
  char done = 0;
  ASSERT_EQ(1, read(ready[0], &done, 1));
  ASSERT_EQ('y', done);
  publishLabelChange("file init /x connected");
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);

  // Past the liveness interval the next message finds it dead: nothing stays
  // queued for it and its files are cleared.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  publishLabelChange("file init /x after");
  EXPECT_TRUE(fs::is_empty(labelChangeListenerDir()));
  auto start = std::chrono::steady_clock::now();
  closeLabelChangePublisher();
  EXPECT_LT(msSince(start), kPromptCloseMs) << "close waited for the dead listener";
}

TEST_F(ChangeBusTest, RunningPublisherReachesListenersThatSubscribeLater) {
  // No listener yet: publishing is a stat of a missing directory.
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) publishLabelChange("file init /x early");
  EXPECT_LT(msSince(start) / 1000, 1.0);

  Subscriber first = newSubscriber();
  ASSERT_EQ(0, subscribeLabelChangeMsg(first.get(), "file"));
  publishLabelChange("file init /x one");
  EXPECT_EQ("file init /x one", receive(first.get()));

  Subscriber second = newSubscriber();
  ASSERT_EQ(0, subscribeLabelChangeMsg(second.get(), "file"));
  publishLabelChange("file init /x two");
  EXPECT_EQ("file init /x two", receive(first.get()));
  EXPECT_EQ("file init /x two", receive(second.get()));
}

TEST_F(ChangeBusTest, ListenerLeavingStopsDeliveryToItAndRemovesItsFiles) {
  auto* listener = new zorv::labelmgr::LabelChangeListener();
  ASSERT_EQ(0, listener->subscribe(""));
  std::string endpoint = listener->endpointPath();
  publishLabelChange("pkg set-id a 0000000000000001");
  std::string text;
  ASSERT_EQ(0, listener->receive(text));
  delete listener;
  EXPECT_FALSE(fs::exists(endpoint));
  EXPECT_TRUE(fs::is_empty(labelChangeListenerDir()));

  // The publisher notices the departure instead of queueing for a ghost, so
  // closing it does not wait out the linger.
  publishLabelChange("pkg set-id a 0000000000000002");
  auto start = std::chrono::steady_clock::now();
  closeLabelChangePublisher();
  EXPECT_LT(msSince(start), kPromptCloseMs) << "close waited for the departed listener";
}

TEST_F(ChangeBusTest, ForkedChildOfAPublisherExitsWithoutHanging) {
  Subscriber subscriber = newSubscriber();
  ASSERT_EQ(0, subscribeLabelChangeMsg(subscriber.get(), "file"));
  publishLabelChange("file restore /a parent");
  EXPECT_EQ("file restore /a parent", receive(subscriber.get()));

  // The child inherits sockets whose ZeroMQ threads it does not have; closing
  // them at exit must not wait for those threads.
  pid_t pid = fork();
  if (pid == 0) {
    publishLabelChange("file restore /a child");
    std::exit(0);
  }
  EXPECT_EQ(0, waitWithin(pid, std::chrono::seconds(5)));
  EXPECT_EQ("file restore /a child", receive(subscriber.get()));
}

TEST_F(ChangeBusTest, RefusesWhatCannotWork) {
  char* message = nullptr;
  EXPECT_EQ(-1, subscribeLabelChangeMsg(nullptr, "file"));
  EXPECT_EQ(-1, recvLabelChangeMsg(nullptr, &message));
  Subscriber unsubscribed = newSubscriber();
  EXPECT_EQ(-1, recvLabelChangeMsg(unsubscribed.get(), &message));
  EXPECT_EQ(nullptr, message);

  // Unix socket paths are short; a state directory too deep for one is refused.
  std::string deep = tmp_.path() + "/" + std::string(100, 'd');
  zorv_testing::ScopedEnv deepState("ZORV_LABELMGR_STATE_DIR", deep);
  zorv_testing::LogCapture log;
  EXPECT_EQ(-1, subscribeLabelChangeMsg(newSubscriber().get(), "file"));
  EXPECT_TRUE(log.contains("label change endpoint path too long")) << log.dump();
}

}  // namespace

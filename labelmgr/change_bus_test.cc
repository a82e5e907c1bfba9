#include "labelmgr/change_bus.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

namespace fs = std::filesystem;
using zorv::labelmgr::closeLabelChangePublisher;
using zorv::labelmgr::labelChangeListenerDir;
using zorv::labelmgr::publishLabelChange;

// What a publisher process does: `count` messages of three kinds, then a
// close as a tool run does; exit 4 when that took over `maxMs` > 0.
int publish(int id, int count, int maxMs) {
  static const char* const kKinds[] = {"file set-oid", "file del-oid", "pkg set-id"};
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i)
    publishLabelChange(std::string(kKinds[i % 3]) + " /t/p" + std::to_string(id) + " " +
                       std::to_string(i));
  closeLabelChangePublisher();
  return maxMs > 0 && std::chrono::steady_clock::now() - start > std::chrono::milliseconds(maxMs)
             ? 4
             : 0;
}

// Runs publish() in a fresh process: this test program again, told by
// ZORV_TEST_PUBLISHER to run PublisherProcess.Run alone. A plain fork() would
// copy the listeners' messaging threads' locks (the sanitizers' allocator
// among them) in whatever state they were, and the child could hang on one.
// The child dies of SIGALRM if hung.
pid_t startPublisher(int id, int count, int maxMs = 0) {
  std::string request = "ZORV_TEST_PUBLISHER=" + std::to_string(id) + "," + std::to_string(count) +
                        "," + std::to_string(maxMs);
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  env.push_back(request);
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  char self[] = "/proc/self/exe";
  char filter[] = "--gtest_filter=PublisherProcess.Run";
  char* argv[] = {self, filter, nullptr};
  pid_t pid = fork();
  if (pid == 0) {
    execve(self, argv, envp.data());
    _exit(127);
  }
  return pid;
}

// The publisher process's body (skipped in a normal run).
TEST(PublisherProcess, Run) {
  const char* request = std::getenv("ZORV_TEST_PUBLISHER");
  if (request == nullptr) GTEST_SKIP() << "run by the bus tests in a process of its own";
  int id = 0, count = 0, maxMs = 0;
  if (std::sscanf(request, "%d,%d,%d", &id, &count, &maxMs) != 3) _exit(3);
  alarm(30);
  _exit(publish(id, count, maxMs));
}

int exitStatus(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Owned here (the handle API has no release call) so listeners remove their files.
using Subscriber = std::unique_ptr<zorv::labelmgr::LabelChangeListener>;
Subscriber newSubscriber(const char* topic) {
  Subscriber subscriber(static_cast<zorv::labelmgr::LabelChangeListener*>(createSubscriber()));
  EXPECT_EQ(0, subscribeLabelChangeMsg(subscriber.get(), topic));
  return subscriber;
}

std::string receive(const Subscriber& subscriber) {
  std::string text;
  return subscriber->receive(text) == 0 ? text : "(failed)";
}

// A listener on every topic in a child process that waits to be killed;
// answers once it is subscribed, -1 when it could not be started.
pid_t startListenerProcess() {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    Subscriber subscriber = newSubscriber("");
    (void)!write(ready[1], "y", 1);
    pause();
  }
  char done = 0;
  bool subscribed = read(ready[0], &done, 1) == 1;
  close(ready[0]);
  close(ready[1]);
  return subscribed ? pid : -1;
}

class ChangeBusTest : public LabelMgrTest {
 protected:
  void SetUp() override {
    LabelMgrTest::SetUp();
    alarm(60);  // a lost message blocks a receive for ever: end the program instead
  }
  void TearDown() override {
    closeLabelChangePublisher();
    alarm(0);
  }
};

TEST_F(ChangeBusTest, ListenersGetExactlyTheirTopicsFromConcurrentPublishers) {
  Subscriber setOid = newSubscriber("file set-oid"), pkg = newSubscriber("pkg");
  constexpr int kPublishers = 3, kCount = 3000;
  std::vector<pid_t> pids;
  for (int id = 0; id < kPublishers; ++id) pids.push_back(startPublisher(id, kCount));
  for (pid_t pid : pids) EXPECT_EQ(0, exitStatus(pid));

  // Per publisher, in order, every third message from `first` on.
  auto check = [](const Subscriber& subscriber, const std::string& kind, int first) {
    std::map<int, std::vector<int>> seen, want;
    for (int id = 0; id < kPublishers; ++id)
      for (int i = first; i < kCount; i += 3) want[id].push_back(i);
    for (int n = 0; n < kPublishers * kCount / 3; ++n) {
      const std::string text = receive(subscriber);
      int id = -1, sequence = -1;
      if (text.compare(0, kind.size(), kind) != 0 ||
          std::sscanf(text.c_str() + kind.size(), " /t/p%d %d", &id, &sequence) != 2)
        ADD_FAILURE() << "unexpected message " << text;
      seen[id].push_back(sequence);
    }
    EXPECT_EQ(want, seen) << kind;
  };
  check(setOid, "file set-oid", 0);
  check(pkg, "pkg set-id", 2);
}

TEST_F(ChangeBusTest, StaleEndpointsOfDeadListenersAreClearedWithoutStalling) {
  // A listener killed without any cleanup leaves its endpoint and lock file,
  // and another endpoint has lost its lock file altogether.
  pid_t pid = fork();
  if (pid == 0) _exit(newSubscriber("") && !::testing::Test::HasFailure() ? 0 : 1);
  ASSERT_EQ(0, exitStatus(pid));
  zorv_testing::writeTextFile(labelChangeListenerDir() + "/1-00.ipc", "");
  Subscriber live = newSubscriber("file");

  // A socket left connected to a dead listener would hold the close for its linger.
  ASSERT_EQ(0, exitStatus(startPublisher(7, 1, 250))) << "4: publishing took too long";
  EXPECT_EQ("file set-oid /t/p7 0", receive(live));
  EXPECT_EQ(
      2, std::distance(fs::directory_iterator(labelChangeListenerDir()), fs::directory_iterator()))
      << "only the live listener's endpoint and lock remain";
}

TEST_F(ChangeBusTest, ListenerDyingWhileConnectedIsDropped) {
  pid_t pid = startListenerProcess();
  ASSERT_GT(pid, 0);
  publishLabelChange("file init /x connected");
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);

  // Past the liveness interval the next message finds it dead and drops it.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  publishLabelChange("file init /x after");
  EXPECT_TRUE(fs::is_empty(labelChangeListenerDir()));
  auto start = std::chrono::steady_clock::now();
  closeLabelChangePublisher();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST_F(ChangeBusTest, ForkedChildOfAPublisherExitsWithoutHanging) {
  Subscriber subscriber = newSubscriber("file");
  publishLabelChange("file restore /a parent");
  EXPECT_EQ("file restore /a parent", receive(subscriber));
  // The child's inherited sockets lack their ZeroMQ threads; exit must not wait.
  pid_t pid = fork();
  if (pid == 0) {
    alarm(5);
    publishLabelChange("file restore /a child");
    std::exit(0);
  }
  EXPECT_EQ(0, exitStatus(pid));
  EXPECT_EQ("file restore /a child", receive(subscriber));
}

// A stopped listener answers nothing: publishing waits for its handshake once,
// within the linger, and never again; closing waits once more at most.
TEST_F(ChangeBusTest, StoppedListenerDelaysAPublisherOnlyBriefly) {
  pid_t pid = startListenerProcess();
  ASSERT_GT(pid, 0);
  kill(pid, SIGSTOP);
  Subscriber live = newSubscriber("");
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) publishLabelChange("file init /x " + std::to_string(i));
  closeLabelChangePublisher();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800));
  for (int i = 0; i < 20; ++i) EXPECT_EQ("file init /x " + std::to_string(i), receive(live));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

class ChangeMessagesTest : public ChangeBusTest {
 protected:
  // Everything received up to a marker published from here.
  std::vector<std::string> received() {
    publishLabelChange("end");
    std::vector<std::string> messages;
    for (std::string text; (text = receive(listener_)) != "end";) messages.push_back(text);
    return messages;
  }
  Subscriber listener_ = newSubscriber("");
};

// One message per changed label or package id, in order; none for no change.
TEST_F(ChangeMessagesTest, OnePerChangedFileAndPackage) {
  std::string a = makeFile("etc/a.conf"), b = makeFile("etc/b.conf");
  std::string spaced = makeFile("etc/with space"), pattern = root_ + "/etc/*.conf";
  std::vector<std::string> expected;
  auto fileMessage = [&](const std::string& op, const std::string& file) {
    expected.push_back("file " + op + " " + file + " " + labelOf(file).toString());
  };
  ASSERT_EQ(0, setFileTid(pattern.c_str(), 7, 1));
  fileMessage("set-tid", a);
  fileMessage("set-tid", b);
  ASSERT_EQ(0, setFileTid(a.c_str(), 7, 0));
  ASSERT_EQ(0, delFileTid(pattern.c_str(), 1));
  fileMessage("del-tid", b);  // a keeps 7 through its own rule
  ASSERT_EQ(0, setFileOid(spaced.c_str(), 0, ZORV_ID{1, 2, 3}));
  fileMessage("set-oid", spaced);
  ASSERT_EQ(0, clearFileOid());
  fileMessage("clear-oid", spaced);
  ASSERT_NE("", restoreSingleFileInitLabel(a));
  fileMessage("init", a);
  ASSERT_NE("", restoreSingleFileInitLabel(a));
  ASSERT_EQ(0, addTagFullSystem(root_ + "/etc", {}));
  expected.push_back("file label-tree " + root_ + "/etc 3 4 0");

  ASSERT_EQ(0, setPkgId("alpha", 0x42));
  expected.push_back("pkg set-id alpha 0000000000000042");
  ASSERT_EQ(0, delUserSetPkgId("alpha"));
  // Back to its own id, the digest of its name: the middle of this OID.
  expected.push_back("pkg del-id alpha " + policyOid("/alpha", 0).toString().substr(17, 16));
  ASSERT_EQ(0, setPkgId("zeta", 7));
  expected.push_back("pkg set-id zeta 0000000000000007");
  ASSERT_EQ(0, clearUserSetPkgId());
  expected.push_back("pkg clear-id zeta -");
  EXPECT_LT(setFileTid((root_ + "/missing").c_str(), 1, 0), 0);
  EXPECT_EQ(expected, received());
}

// A file name can hold any byte but NUL: it must not end a message's line or
// fake another one, and a topic naming it must still match. (Exact paths with
// control characters are refused; a pattern still finds such a file.)
TEST_F(ChangeMessagesTest, ControlCharactersInPathsAreEscapedAndTopicsStillMatch) {
  std::string name = "evil\nfile set-oid x 0\\\t\x7f";
  std::string file = makeFile(name);
  Subscriber exact = newSubscriber(("file set-oid " + root_ + "/evil\n").c_str());
  ASSERT_EQ(0, setFileOid((root_ + "/evil*").c_str(), 1, ZORV_ID{1, 2, 3}));
  std::string expected = "file set-oid " + root_ + "/evil\\x0afile set-oid x 0\\\\\\x09\\x7f " +
                         labelOf(file).toString();
  EXPECT_EQ(std::vector<std::string>{expected}, received());
  EXPECT_EQ(expected, receive(exact));
}

}  // namespace
}  // namespace zorv_testing

#include "labelmgr/state_files.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "labelmgr/change_bus.h"
#include "labelmgr/labelmgr_test_env.h"
#include "labelmgr/state_db.h"
#include "labelmgr/state_lock.h"
#include "labelmgr/tree_label_cache.h"

namespace zorv_testing {
namespace {

namespace fs = std::filesystem;
namespace lm = zorv::labelmgr;

class StateFilesTest : public LabelMgrTest {
 protected:
  void SetUp() override {
    LabelMgrTest::SetUp();
    alarm(60);  // a blocking open would hang the test: end it instead
  }
  void TearDown() override {
    lm::closeLabelChangePublisher();
    alarm(0);
  }
  std::string state() const { return base_ + "/state"; }
  int setOid(const std::string& file, uint64_t value) {
    return setFileOid(file.c_str(), 0, ZORV_ID{value, 2, 3});
  }
  int userSetOids() {
    return collectRecords([](UserSetRecord** records) { return showUserSetFileOid(records); })
        .count;
  }
};

TEST_F(StateFilesTest, UnsafeStateDirectoryIsRefusedAndNamed) {
  std::string file = makeFile("a");
  ASSERT_EQ(0, setOid(file, 1));
  struct stat st;
  ASSERT_EQ(0, stat(state().c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 07777) << "created private";

  lm::StateDir dir;
  std::string error;
  struct Case {
    const char* what;
    std::function<void()> spoil;
    const char* problem;
  };
  const std::vector<Case> cases = {
      {"group-writable", [&] { chmod(state().c_str(), 0770); }, "writable by group or others"},
      {"foreign owner", [&] { chown(state().c_str(), 4321, 0); }, "owned by uid 4321"},
      {"open ancestor", [&] { chmod(base_.c_str(), 0777); }, "writable by group or others"},
  };
  for (const Case& c : cases) {
    c.spoil();
    EXPECT_EQ(-EPERM, lm::openStateDir(state(), false, &dir, &error)) << c.what;
    EXPECT_NE(std::string::npos, error.find(state())) << error;
    EXPECT_NE(std::string::npos, error.find(c.problem)) << error;
    EXPECT_LT(setOid(file, 2), 0) << c.what;
    EXPECT_LT(userSetOids(), 0) << c.what;
    EXPECT_FALSE(lm::StateLock::acquire(lm::StateLock::Mode::kShared, &error)) << c.what;
    chmod(state().c_str(), 0700);
    chown(state().c_str(), 0, 0);
    chmod(base_.c_str(), 0700);
  }
  // A sticky ancestor open to all (like /tmp) is fine: nobody can rename ours.
  chmod(base_.c_str(), 01777);
  EXPECT_EQ(0, lm::openStateDir(state(), false, &dir, &error)) << error;
  EXPECT_EQ(0, setOid(file, 3));
  EXPECT_EQ(1, userSetOids());
}

// What stands at a state file's name may be a link (to a file of root's that
// must never be written) or a FIFO (an open of which would block for ever).
TEST_F(StateFilesTest, LinksAndFifosInTheStateSlotsAreNeitherFollowedNorWaitedOn) {
  std::string file = makeFile("a");
  std::string victim = base_ + "/victim";
  std::string error;
  lm::StateDir dir;
  ASSERT_EQ(0, lm::openStateDir(state(), true, &dir, &error)) << error;
  for (bool fifo : {false, true}) {
    SCOPED_TRACE(fifo ? "fifo" : "symlink");
    auto plant = [&](const std::string& name) {
      std::string path = state() + "/" + name;
      fs::remove(path);
      fs::remove(victim);
      if (fifo) {
        ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
      } else {
        fs::create_symlink(victim, path);
      }
    };

    plant("labelmgr.db");
    EXPECT_LT(setOid(file, 1), 0);
    EXPECT_LT(userSetOids(), 0);
    EXPECT_FALSE(fs::exists(victim)) << "the database was created at the link's target";
    fs::remove(state() + "/labelmgr.db");

    plant("labels.lock");
    EXPECT_FALSE(lm::StateLock::acquire(lm::StateLock::Mode::kExclusive, &error));
    EXPECT_NE(std::string::npos, error.find("labels.lock")) << error;
    EXPECT_FALSE(fs::exists(victim));
    fs::remove(state() + "/labels.lock");

    // The cache is only an optimisation: the run goes on and puts a real one there.
    plant("label-tree.cache");
    EXPECT_EQ(0, addTagFullSystem(root_, {}));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(state() + "/label-tree.cache")));
    EXPECT_FALSE(fs::exists(victim));
  }
}

// Leaves a socket file at `path`, as a listener that died would.
void bindSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size());
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  close(fd);
}

TEST_F(StateFilesTest, ForeignListenerEntriesAreRemovedWithoutBlockingAPublish) {
  auto listener = std::unique_ptr<lm::LabelChangeListener>(
      static_cast<lm::LabelChangeListener*>(createSubscriber()));
  ASSERT_EQ(0, listener->subscribe("file"));
  std::string dir = lm::labelChangeListenerDir();
  std::string victim = base_ + "/victim";
  writeTextFile(victim, "keep");
  // Endpoints whose lock is a FIFO or a link, an endpoint that is no socket,
  // a FIFO and a link under names of our pattern, and names of no pattern.
  bindSocket(dir + "/11-00000000000000aa.ipc");
  ASSERT_EQ(0, mkfifo((dir + "/11-00000000000000aa.lock").c_str(), 0600));
  bindSocket(dir + "/12-00000000000000bb.ipc");
  fs::create_symlink(victim, dir + "/12-00000000000000bb.lock");
  writeTextFile(dir + "/16-00000000000000ff.ipc", "");
  ASSERT_EQ(0, mkfifo((dir + "/13-00000000000000cc.ipc").c_str(), 0600));
  fs::create_symlink(victim, dir + "/14-00000000000000dd.ipc");
  writeTextFile(dir + "/notes.txt", "");
  fs::create_directory(dir + "/15-00000000000000ee.lock");

  auto start = std::chrono::steady_clock::now();
  lm::publishLabelChange("file init /x 1");
  lm::closeLabelChangePublisher();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  std::string text;
  ASSERT_EQ(0, listener->receive(text));
  EXPECT_EQ("file init /x 1", text);
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(dir)) left.push_back(entry.path().string());
  std::sort(left.begin(), left.end());
  std::string own = listener->endpointPath();
  std::vector<std::string> expected = {own, own.substr(0, own.size() - 4) + ".lock"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, left);
  EXPECT_EQ("keep", readTextFile(victim));
}

TEST_F(StateFilesTest, WaitingWriterIsNotOvertakenByLaterReaders) {
  std::string error;
  auto reader = lm::StateLock::acquire(lm::StateLock::Mode::kShared, &error);
  ASSERT_TRUE(reader) << error;
  std::atomic<int> order{0};
  int writerAt = 0, laterReaderAt = 0;
  std::thread writer([&] {
    std::string ignored;
    auto lock = lm::StateLock::acquire(lm::StateLock::Mode::kExclusive, &ignored);
    writerAt = lock ? ++order : -1;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  std::thread laterReader([&] {
    std::string ignored;
    auto lock = lm::StateLock::acquire(lm::StateLock::Mode::kShared, &ignored);
    laterReaderAt = lock ? ++order : -1;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(0, order.load()) << "the writer waits for the reader, the later reader for it";
  reader.reset();
  writer.join();
  laterReader.join();
  EXPECT_EQ(1, writerAt);
  EXPECT_EQ(2, laterReaderAt);
}

TEST_F(StateFilesTest, RulesGenerationGrowsWithEachBump) {
  auto db = lm::StateDb::open(lm::StateDb::OpenMode::kCreate);
  ASSERT_TRUE(db);
  EXPECT_EQ(0u, lm::readRulesGeneration(*db));
  EXPECT_TRUE(lm::bumpRulesGeneration(*db));
  EXPECT_TRUE(lm::bumpRulesGeneration(*db));
  EXPECT_EQ(2u, lm::readRulesGeneration(*db));
}

}  // namespace
}  // namespace zorv_testing

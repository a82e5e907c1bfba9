// Driver of publish_bench.sh: what label-change listeners cost a change.
//
// Usage: publish_bench TOOL FILE LISTENERS SETS
// Times SETS runs of `TOOL -a -o FILE N 2 3` (each changes the label, so each
// publishes one message) without listeners and with LISTENERS of them held by
// a child process, then one in-process publish and close, and checks that
// every listener received every message. Prints the figures and the
// publishing cost per change against its 50 ms target.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "labelmgr/change_bus.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace lm = zorv::labelmgr;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int runTool(const std::string& tool, const std::string& file, int value) {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    std::string v = std::to_string(value);
    execl(tool.c_str(), tool.c_str(), "-a", "-o", file.c_str(), v.c_str(), "2", "3", nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

// Mean milliseconds of one set, over `sets` runs with values from `first`.
double timeSets(const std::string& tool, const std::string& file, int sets, int first) {
  auto start = Clock::now();
  for (int i = 0; i < sets; ++i) {
    if (runTool(tool, file, first + i) != 0) {
      std::fprintf(stderr, "the set failed\n");
      std::exit(1);
    }
  }
  return msSince(start) / sets;
}

int threadCount() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("Threads:", 0) == 0) return std::atoi(line.c_str() + 8);
  return -1;
}

// The child holding the listeners: subscribes them all, says so on `ready`,
// waits for the number of messages to expect on `go`, then receives them.
[[noreturn]] void holdListeners(int count, int ready, int go) {
  std::vector<std::unique_ptr<lm::LabelChangeListener>> listeners;
  for (int i = 0; i < count; ++i) {
    listeners.push_back(std::make_unique<lm::LabelChangeListener>());
    if (listeners.back()->subscribe("file") != 0) _exit(2);
  }
  (void)!write(ready, "r", 1);
  int expected = 0;
  if (read(go, &expected, sizeof expected) != sizeof expected) _exit(3);
  alarm(60);  // a lost message would block a receive for ever
  for (auto& listener : listeners) {
    for (int i = 0; i < expected; ++i) {
      std::string text;
      if (listener->receive(text) != 0) _exit(4);
    }
  }
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s TOOL FILE LISTENERS SETS\n", argv[0]);
    return 2;
  }
  const std::string tool = argv[1];
  const std::string file = argv[2];
  const int listeners = std::atoi(argv[3]);
  const int sets = std::atoi(argv[4]);
  { std::ofstream(file) << "x"; }

  runTool(tool, file, 1);  // page everything in, create the state
  double quiet = timeSets(tool, file, sets, 100);

  int ready[2], go[2];
  if (pipe(ready) != 0 || pipe(go) != 0) return 1;
  auto setUp = Clock::now();
  pid_t holder = fork();
  if (holder == 0) holdListeners(listeners, ready[1], go[0]);
  char byte = 0;
  if (read(ready[0], &byte, 1) != 1) return 1;
  double setUpMs = msSince(setUp);

  double busy = timeSets(tool, file, sets, 1000);

  // In this process: the first change (listing and connecting), a further
  // one, and closing, which waits for the messages to leave.
  auto start = Clock::now();
  lm::publishLabelChange("file set-oid /bench/first 0");
  double firstMs = msSince(start);
  int threads = threadCount();
  start = Clock::now();
  lm::publishLabelChange("file set-oid /bench/second 0");
  double furtherMs = msSince(start);
  start = Clock::now();
  lm::closeLabelChangePublisher();
  double closeMs = msSince(start);

  int expected = sets + 2;
  if (write(go[1], &expected, sizeof expected) != sizeof expected) return 1;
  int status = 0;
  waitpid(holder, &status, 0);
  bool delivered = WIFEXITED(status) && WEXITSTATUS(status) == 0;

  double perChange = busy - quiet;
  std::printf("listeners:                          %d (set up in %.0f ms)\n", listeners, setUpMs);
  std::printf("set, no listener:                   %.1f ms\n", quiet);
  std::printf("set, %d listeners:                 %.1f ms\n", listeners, busy);
  std::printf("in-process first change:            %.1f ms, %d threads while connected\n", firstMs,
              threads);
  std::printf("in-process further change:          %.3f ms\n", furtherMs);
  std::printf("in-process close:                   %.1f ms\n", closeMs);
  std::printf("every listener got every message:   %s\n", delivered ? "yes" : "NO");
  std::printf("publishing cost per change:         %.1f ms (target < 50 ms, ratio %.2f)\n",
              perChange, perChange / 50.0);
  return delivered && perChange < 50.0 ? 0 : 1;
}

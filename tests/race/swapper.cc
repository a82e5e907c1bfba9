#include "tests/race/swapper.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zorv_race {
namespace {

bool dropToUser() { return setgroups(0, nullptr) == 0 && setgid(kUser) == 0 && setuid(kUser) == 0; }

}  // namespace

bool swapNames(const std::string& a, const std::string& b) {
  return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

const char* swapName(Swap swap) {
  switch (swap) {
    case Swap::kNone:
      return "not swapped";
    case Swap::kEarly:
      return "swapped before the run";
    case Swap::kFlip:
      return "swapped back and forth";
    case Swap::kReached:
      return "swapped once reached";
  }
  return "";
}

volatile sig_atomic_t Swapper::stopping_ = 0;

Swapper::Swapper(Swap swap, const std::string& dir, const std::string& link,
                 const std::vector<std::string>& watched)
    : dir_(dir), link_(link) {
  int report[2];  // "r" once ready, then the number of swaps at the end
  if (pipe2(report, O_CLOEXEC) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    close(report[0]);
    if (!dropToUser()) _exit(1);
    run(swap, watched, report[1]);
  }
  close(report[1]);
  report_ = report[0];
  char byte = 0;
  started_ = read(report_, &byte, 1) == 1;
}

long Swapper::stop() {
  if (pid_ <= 0) return swaps_;
  kill(pid_, SIGUSR1);
  std::string count;
  char buffer[32];
  for (ssize_t n; (n = read(report_, buffer, sizeof buffer)) > 0;) count.append(buffer, n);
  close(report_);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
  swaps_ = count.empty() ? -1 : std::stol(count);
  struct stat st;
  if (lstat(dir_.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) swapNames(dir_, link_);
  return swaps_;
}

void Swapper::run(Swap swap, const std::vector<std::string>& watched, int report) {
  signal(SIGUSR1, [](int) { stopping_ = 1; });
  long swaps = 0;
  // A label written on an entry of a watched directory (or on the directory
  // itself) is an attribute change, which inotify reports at once.
  const int changes = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  for (const std::string& dir : watched)
    if (inotify_add_watch(changes, dir.c_str(), IN_ATTRIB | IN_DONT_FOLLOW) < 0) _exit(1);
  if (swap == Swap::kEarly) swaps += swapNames(dir_, link_);
  if (write(report, "r", 1) != 1) _exit(1);
  if (swap == Swap::kFlip) {
    while (!stopping_) {
      swaps += swapNames(dir_, link_);
      usleep(200);
      swaps += swapNames(dir_, link_);
      usleep(200);
    }
  } else if (swap == Swap::kReached) {
    pollfd changed{changes, POLLIN, 0};
    while (!stopping_ && poll(&changed, 1, 1) == 0) continue;
    if (!stopping_) swaps += swapNames(dir_, link_);
  }
  while (!stopping_) usleep(1000);
  const std::string count = std::to_string(swaps);
  _exit(write(report, count.data(), count.size()) < 0);
}

}  // namespace zorv_race

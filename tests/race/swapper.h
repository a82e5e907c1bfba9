// The attacker of the race tests: a process of an unprivileged user that
// swaps a directory of the tree the tool works on for a symbolic link out of
// it, while the tool runs.
#ifndef ZORV_TESTS_RACE_SWAPPER_H_
#define ZORV_TESTS_RACE_SWAPPER_H_

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace zorv_race {

/// The user who owns the tree and attacks it.
constexpr uid_t kUser = 65534;

/// Exchanges two names atomically, so that at every moment the directory is
/// either the real one or the link.
bool swapNames(const std::string& a, const std::string& b);

// How the user swaps ROOT/u for the link.
enum class Swap {
  kNone,     // not at all: shows what the run changes in the tree
  kEarly,    // before the run starts, for good
  kFlip,     // back and forth all through the run
  kReached,  // once for good, as soon as any label in ROOT/u changes
};

/// How the cases print `swap`.
const char* swapName(Swap swap);

// The user's process. Started ready (the early swap made, the watches set);
// stopped and the real directory put back when it goes away.
class Swapper {
 public:
  Swapper(Swap swap, const std::string& dir, const std::string& link,
          const std::vector<std::string>& watched);
  ~Swapper() { stop(); }
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;

  bool started() const { return started_; }

  /// Stops the user's process and answers how often it swapped (-1: unknown).
  long stop();

 private:
  static volatile sig_atomic_t stopping_;

  [[noreturn]] void run(Swap swap, const std::vector<std::string>& watched, int report);

  std::string dir_, link_;
  pid_t pid_ = -1;
  int report_ = -1;
  bool started_ = false;
  long swaps_ = 0;
};

}  // namespace zorv_race

#endif  // ZORV_TESTS_RACE_SWAPPER_H_

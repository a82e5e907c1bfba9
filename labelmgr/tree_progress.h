// Whole-tree labelling's progress line: rewritten on the terminal a few
// times a second while the run lasts, wiped when it ends.
#ifndef ZORV_LABELMGR_TREE_PROGRESS_H_
#define ZORV_LABELMGR_TREE_PROGRESS_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zorv::labelmgr {

class TreeProgress {
 public:
  /// Shows "N files <verb>, R files/s, <where>" on standard error, N read
  /// from `done` and <where> asked of `where` each time, until destroyed.
  TreeProgress(const std::atomic<uint64_t>& done, std::string verb,
               std::function<std::string()> where);
  ~TreeProgress();
  TreeProgress(const TreeProgress&) = delete;
  TreeProgress& operator=(const TreeProgress&) = delete;

 private:
  void loop();

  const std::atomic<uint64_t>& done_;
  const std::string verb_;
  const std::function<std::string()> where_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_PROGRESS_H_

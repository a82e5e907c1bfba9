// Whole-tree labelling's work queue: the walk gathers entries into batches
// (Batcher), a bounded queue hands them to a pool of workers (WorkerPool),
// each of which runs TreeRun::process on every entry of its batch.
//
// Each queued entry keeps its directory's descriptor open; bounding the
// directories per batch and the batches in flight bounds the descriptors.
#ifndef ZORV_LABELMGR_TREE_WORKERS_H_
#define ZORV_LABELMGR_TREE_WORKERS_H_

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "labelmgr/tree_item.h"
#include "labelmgr/tree_run.h"

namespace zorv::labelmgr {

class BatchQueue {
 public:
  void push(std::vector<TreeItem> batch);
  /// Waits for the next batch; false once closed and drained. `beforeWait`
  /// runs (without the queue's lock) when there is none yet.
  bool pop(std::vector<TreeItem>* batch, const std::function<void()>& beforeWait);
  void close();

 private:
  std::mutex mutex_;
  std::condition_variable notEmpty_;
  std::condition_variable notFull_;
  std::deque<std::vector<TreeItem>> batches_;
  bool closed_ = false;
};

class WorkerPool {
 public:
  WorkerPool(TreeRun& run, unsigned count);
  ~WorkerPool() { finish(); }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void push(std::vector<TreeItem> batch) { queue_.push(std::move(batch)); }

  /// Waits for every queued entry; adds the workers' counts to `total` and
  /// moves the lists of entries they found correctly labelled to `verified`.
  void finish(TreeLabelStats* total = nullptr,
              std::vector<std::vector<TreeCacheEntry>>* verified = nullptr);

 private:
  void work(WorkerState& worker);
  static bool enter(TreeItem& item, WorkerState& worker);

  TreeRun& run_;
  BatchQueue queue_;
  std::vector<WorkerState> workers_;
  std::vector<std::thread> threads_;
};

/// Gathers entries into batches, closing a batch when it is full or spans
/// enough directories.
class Batcher {
 public:
  explicit Batcher(WorkerPool& pool) : pool_(pool) {}
  void add(TreeItem item);
  void flush();

 private:
  WorkerPool& pool_;
  std::vector<TreeItem> batch_;
  size_t directories_ = 0;
  const UniqueFd* lastDir_ = nullptr;
};

/// Adds every count of `part` to `total`.
void addStats(TreeLabelStats& total, const TreeLabelStats& part);

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_TREE_WORKERS_H_

#include "labelmgr/tree_workers.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "label/label_attr.h"

namespace zorv::labelmgr {
namespace {

constexpr size_t kBatchItems = 256;
constexpr size_t kBatchDirectories = 8;
constexpr size_t kQueuedBatches = 16;

}  // namespace

void BatchQueue::push(std::vector<TreeItem> batch) {
  std::unique_lock<std::mutex> lock(mutex_);
  notFull_.wait(lock, [this] { return batches_.size() < kQueuedBatches; });
  batches_.push_back(std::move(batch));
  notEmpty_.notify_one();
}

bool BatchQueue::pop(std::vector<TreeItem>* batch, const std::function<void()>& beforeWait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (batches_.empty() && !closed_) {
    lock.unlock();
    beforeWait();
    lock.lock();
  }
  notEmpty_.wait(lock, [this] { return !batches_.empty() || closed_; });
  if (batches_.empty()) return false;
  *batch = std::move(batches_.front());
  batches_.pop_front();
  notFull_.notify_one();
  return true;
}

void BatchQueue::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  notEmpty_.notify_all();
}

WorkerPool::WorkerPool(TreeRun& run, unsigned count) : run_(run), workers_(count) {
  // Room for what the last run verified, reserved but not yet touched, so
  // that a large tree's entries are never copied as their lists grow.
  for (WorkerState& worker : workers_) worker.verified.reserve(run.verifiedCapacity());
  for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this, i] { work(workers_[i]); });
}

void WorkerPool::finish(TreeLabelStats* total, std::vector<std::vector<TreeCacheEntry>>* verified) {
  queue_.close();
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
  for (WorkerState& worker : workers_) {
    if (total != nullptr) addStats(*total, worker.stats);
    if (verified != nullptr) verified->push_back(std::move(worker.verified));
  }
}

void WorkerPool::work(WorkerState& worker) {
  // Lets the attribute calls' fallback (kernels without the *xattrat calls)
  // move this thread's working directory into each directory.
  worker.moveCwd = !usingXattrAt() && usePrivateWorkingDirectory();
  std::vector<TreeItem> batch;
  // A worker about to wait for work lets writers in first.
  while (queue_.pop(&batch, [&] { run_.endBatch(worker, true); })) {
    for (TreeItem& item : batch) {
      if (worker.moveCwd && !enter(item, worker)) continue;
      try {
        run_.process(item, worker);
      } catch (const std::exception& e) {
        TREE_LOG(ERROR, "labelling %s failed: %s", item.path.c_str(), e.what());
        ++worker.stats.failed;
      }
    }
    run_.endBatch(worker);
    run_.done += batch.size();
    batch.clear();
  }
  run_.endBatch(worker, true);
}

// Moves the worker's working directory into the item's directory, unless it
// is there already. False (counted, logged) when it cannot.
bool WorkerPool::enter(TreeItem& item, WorkerState& worker) {
  if (item.dir != worker.cwd) {
    worker.cwd.reset();
    if (::fchdir(item.dir->get()) != 0) {
      TREE_LOG(ERROR, "cannot enter the directory of %s: %s", item.path.c_str(),
               std::strerror(errno));
      ++worker.stats.failed;
      return false;
    }
    worker.cwd = item.dir;
  }
  item.inCwd = true;
  return true;
}

void Batcher::add(TreeItem item) {
  const UniqueFd* dir = item.dir.get();
  if (dir != lastDir_) {
    if (directories_ == kBatchDirectories) flush();
    lastDir_ = dir;
    ++directories_;
  }
  batch_.push_back(std::move(item));
  if (batch_.size() >= kBatchItems) flush();
}

void Batcher::flush() {
  if (!batch_.empty()) pool_.push(std::move(batch_));
  batch_ = std::vector<TreeItem>();
  batch_.reserve(kBatchItems);
  directories_ = 0;
  lastDir_ = nullptr;
}

void addStats(TreeLabelStats& total, const TreeLabelStats& part) {
  total.seen += part.seen;
  total.written += part.written;
  total.cached += part.cached;
  total.failed += part.failed;
  total.mountsSkipped += part.mountsSkipped;
  total.excluded += part.excluded;
}

}  // namespace zorv::labelmgr

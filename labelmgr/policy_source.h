// Where a whole-tree run takes the policy that decides each file's label
// from: one loaded beforehand, or a loader run only when some entry needs
// its label computed, and again after the user-set rules changed.
#ifndef ZORV_LABELMGR_POLICY_SOURCE_H_
#define ZORV_LABELMGR_POLICY_SOURCE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace zorv::labelmgr {

class LabelPolicy;

/// Where a run takes its LabelPolicy from: one loaded beforehand, or a loader
/// called on the first entry whose label must be computed, so that a run that
/// finds everything unchanged in its cache never pays for loading it.
/// get() is thread-safe.
class PolicySource {
 public:
  explicit PolicySource(const LabelPolicy& policy);
  /// `fingerprint` as TreeLabelCache::fingerprint() gives it for the rules and
  /// package ids the loader will see. The loader runs on a worker thread, on
  /// first use and again after refresh() saw the rules change; null means it
  /// failed (and said why).
  PolicySource(std::function<std::unique_ptr<LabelPolicy>()> load, uint64_t fingerprint);
  ~PolicySource();
  PolicySource(const PolicySource&) = delete;
  PolicySource& operator=(const PolicySource&) = delete;

  const LabelPolicy* get();
  /// For a loader: the user-set rules now have `generation` (read under the
  /// labels lock); when that differs from the last one seen, the next get()
  /// loads the policy again. Thread-safe.
  void refresh(uint64_t generation);
  uint64_t fingerprint() const { return fingerprint_; }

 private:
  std::function<std::unique_ptr<LabelPolicy>()> load_;
  std::mutex mutex_;
  std::atomic<const LabelPolicy*> current_{nullptr};
  std::vector<std::unique_ptr<LabelPolicy>> retired_;  // every policy loaded, the current last
  bool loaded_ = false;
  bool knowsGeneration_ = false;
  uint64_t generation_ = 0;
  const LabelPolicy* policy_ = nullptr;
  uint64_t fingerprint_ = 0;
};

}  // namespace zorv::labelmgr

#endif  // ZORV_LABELMGR_POLICY_SOURCE_H_

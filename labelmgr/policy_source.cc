#include "labelmgr/policy_source.h"

#include "labelmgr/label_policy.h"
#include "labelmgr/tree_label_cache.h"

namespace zorv::labelmgr {

PolicySource::PolicySource(const LabelPolicy& policy)
    : policy_(&policy), fingerprint_(TreeLabelCache::fingerprint(policy)) {}

PolicySource::PolicySource(std::function<std::unique_ptr<LabelPolicy>()> load, uint64_t fingerprint)
    : load_(std::move(load)), fingerprint_(fingerprint) {}

PolicySource::~PolicySource() = default;

const LabelPolicy* PolicySource::get() {
  if (!load_) return policy_;
  if (const LabelPolicy* current = current_.load(std::memory_order_acquire)) return current;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!loaded_) {
    loaded_ = true;
    retired_.push_back(load_());
    current_.store(retired_.back().get(), std::memory_order_release);
  }
  return current_.load(std::memory_order_relaxed);
}

void PolicySource::refresh(uint64_t generation) {
  if (!load_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (knowsGeneration_ && generation != generation_) {
    // Loaded again on next use. The old one stays alive: nothing uses it
    // once the rules have changed, but nothing has to prove that either.
    loaded_ = false;
    current_.store(nullptr, std::memory_order_release);
  }
  knowsGeneration_ = true;
  generation_ = generation;
}

}  // namespace zorv::labelmgr

#include "vorlap/Cache.hpp"

#include <algorithm>

namespace Vorlap {

void Creature::enableCaching(bool on) {
  caching_ = on;
  if (!on) dropCachedData();
}

StrongPtr<Cache> Cache::MemCache() {
  static StrongPtr<Cache> cache = makeStrong<Cache>();
  return cache;
}

void Cache::add(const StrongPtr<Cacheable>& data) {
  if (data.isEmpty()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  // Pruning only when the list has doubled keeps an add O(1) on average however many
  // fragments stay alive (a simulated survey holds all of its fragments).
  if (items_.size() >= 2 * liveAfterPrune_ + 16) prune();
  items_.emplace_back(data);
}

void Cache::prune() {
  items_.erase(std::remove_if(items_.begin(), items_.end(),
                              [](const WeakPtr<Cacheable>& w) { return w.expired(); }),
               items_.end());
  liveAfterPrune_ = items_.size();
}

std::size_t Cache::bytesInUse() {
  std::lock_guard<std::mutex> lock(mutex_);
  prune();
  std::size_t total = 0;
  for (const auto& w : items_) {
    if (auto s = w.lock()) total += s->memoryBytes();
  }
  return total;
}

std::size_t Cache::entries() {
  std::lock_guard<std::mutex> lock(mutex_);
  prune();
  return items_.size();
}

}  // namespace Vorlap

// On-demand data: Cacheable data remember their last use and the Creature (creator) that
// made them; a Creature may keep what it made (caching) or hand it out only. MemCache is
// the memory cache that accounts for the bytes of the data registered with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "vorlap/Ageable.hpp"
#include "vorlap/StrongPtr.hpp"

namespace Vorlap {

class Creature {
 public:
  virtual ~Creature() = default;
  // Off: data handed out are not kept, so they live only as long as their users hold them.
  void enableCaching(bool on);
  bool cachingEnabled() const { return caching_; }

 protected:
  virtual void dropCachedData() {}

 private:
  bool caching_ = true;
};

class Cacheable : public Ageable {
 public:
  virtual ~Cacheable() = default;
  void markAsUsed() noexcept { lastUse_ = nextTime(); }
  std::uint64_t lastUse() const noexcept { return lastUse_; }
  void setCreator(const WeakPtr<Creature>& creator) { creator_ = creator; }
  StrongPtr<Creature> getCreator() const { return creator_.lock(); }
  virtual std::size_t memoryBytes() const = 0;

 private:
  std::uint64_t lastUse_ = 0;
  WeakPtr<Creature> creator_;
};

class Cache {
 public:
  static StrongPtr<Cache> MemCache();

  void add(const StrongPtr<Cacheable>& data);
  // Bytes of the registered data that are still alive.
  std::size_t bytesInUse();
  std::size_t entries();

 private:
  void prune();
  std::mutex mutex_;
  std::vector<WeakPtr<Cacheable>> items_;
  std::size_t liveAfterPrune_ = 0;
};

}  // namespace Vorlap

// Modification times: one global counter, incremented atomically, stamps changed objects.
#pragma once

#include <atomic>
#include <cstdint>

namespace Vorlap {

class Ageable {
 public:
  static std::atomic<std::uint64_t> GlobalTime;

  // Increments the global time and returns the new value.
  static std::uint64_t nextTime() noexcept { return GlobalTime.fetch_add(1) + 1; }

  std::uint64_t age() const noexcept { return age_; }
  void setAge(std::uint64_t t) noexcept { age_ = t; }
  void touch() noexcept { age_ = nextTime(); }

 private:
  std::uint64_t age_ = 0;
};

}  // namespace Vorlap

// Wave objects kept for reuse. A run makes one wave object per waveform row and echo record
// of every fragment; taking back the previous fragment's objects spares the allocator a free
// and a new object per wave, and their echo lists keep their room.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vorlap/StrongPtr.hpp"
#include "waveform/WavePoints.hpp"

namespace FullWaveform {

template <class T>
class WavePool {
 public:
  using Ptr = Vorlap::StrongPtr<WavePoints<T>>;

  // A wave as a fresh object would be: default attributes and no echoes.
  Ptr take() {
    if (next_ == spare_.size()) return Vorlap::makeStrong<WavePoints<T>>();
    // The spare objects lie scattered in the heap: ask for the next ones (and then their
    // echo lists) ahead, as each is written at once.
    if (next_ + kAhead < spare_.size()) __builtin_prefetch(spare_[next_ + kAhead].get(), 1);
    if (next_ + kAhead / 2 < spare_.size())
      __builtin_prefetch(spare_[next_ + kAhead / 2]->echoes.data(), 1);
    Ptr wave = std::move(spare_[next_++]);
    static_cast<AdditionalAttributesPerWave&>(*wave) = AdditionalAttributesPerWave();
    wave->echoes.clear();
    wave->maxSample = T();
    return wave;
  }

  // Takes back the wave when nothing else holds it; the handle is left empty.
  void giveBack(Ptr& wave) {
    if (wave && wave.useCount() == 1) spare_.push_back(std::move(wave));
    wave.reset();
  }

  // Takes back every wave of the list that nothing else holds, in list order (which is the
  // order take hands them out again); the list is left empty with its room.
  void giveBack(std::vector<Ptr>& waves) {
    if (next_ > 0) {
      spare_.erase(spare_.begin(), spare_.begin() + std::ptrdiff_t(next_));
      next_ = 0;
    }
    for (auto& wave : waves) giveBack(wave);
    waves.clear();
  }

  // Objects waiting to be taken.
  std::size_t spare() const { return spare_.size() - next_; }

  // Puts the waiting objects in the order of their addresses. The stages walk a fragment's
  // waves in order: objects handed out in address order are read as a few forward streams,
  // which the processor fetches ahead, where a list left in the previous fragment's order
  // (mixed further by every fragment) misses the cache at nearly every wave.
  void orderByAddress() {
    if (next_ > 0) {
      spare_.erase(spare_.begin(), spare_.begin() + std::ptrdiff_t(next_));
      next_ = 0;
    }
    sortByAddress(spare_, scratch_, keys_, otherKeys_);
  }

 private:
  struct Key {
    std::uintptr_t address;
    std::uint32_t index;
  };

  // Least significant digit first, 11 bits a pass, over the addresses' span only: a few
  // linear passes where a comparison sort of a fragment's waves took longer than it saved.
  // Short lists (small fragments) are sorted by comparison: three passes over a table of
  // 2,049 counts cost more than they sort. The addresses differ, so either order is the same.
  void sortByAddress(std::vector<Ptr>& list, std::vector<Ptr>& scratch, std::vector<Key>& keys,
                     std::vector<Key>& other) {
    if (list.size() < 2) return;
    keys.resize(list.size());
    std::uintptr_t low = ~std::uintptr_t(0), high = 0;
    bool sorted = true;
    for (std::size_t i = 0; i < list.size(); ++i) {
      const auto a = reinterpret_cast<std::uintptr_t>(list[i].get());
      keys[i] = {a, std::uint32_t(i)};
      sorted = sorted && a >= high;
      low = a < low ? a : low;
      high = a > high ? a : high;
    }
    if (sorted) return;
    if (list.size() < kRadixFrom) {
      std::sort(keys.begin(), keys.end(),
                [](const Key& a, const Key& b) { return a.address < b.address; });
    } else {
      other.resize(keys.size());
      for (unsigned shift = 0; shift < 64 && ((high - low) >> shift) > 0; shift += kDigitBits) {
        counts_.assign((std::size_t(1) << kDigitBits) + 1, 0);
        for (const Key& k : keys) ++counts_[digit(k, low, shift) + 1];
        for (std::size_t d = 1; d < counts_.size(); ++d) counts_[d] += counts_[d - 1];
        for (const Key& k : keys) other[counts_[digit(k, low, shift)]++] = k;
        keys.swap(other);
      }
    }
    scratch.resize(list.size());
    for (std::size_t i = 0; i < keys.size(); ++i) scratch[i] = std::move(list[keys[i].index]);
    list.swap(scratch);
    scratch.clear();
  }

  static std::size_t digit(const Key& k, std::uintptr_t low, unsigned shift) {
    return std::size_t((k.address - low) >> shift) & ((std::size_t(1) << kDigitBits) - 1);
  }

  static constexpr unsigned kDigitBits = 11;
  static constexpr std::size_t kRadixFrom = 1024;
  static constexpr std::size_t kAhead = 8;
  std::vector<Ptr> spare_, scratch_;
  std::vector<Key> keys_, otherKeys_;
  std::vector<std::size_t> counts_;  // the radix passes' table, kept for the next fragment
  std::size_t next_ = 0;             // spare_[0, next_) were taken: empty handles
};

}  // namespace FullWaveform

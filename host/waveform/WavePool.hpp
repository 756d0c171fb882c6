// Wave objects kept for reuse. A run makes one wave object per waveform row and echo record
// of every fragment; taking back the previous fragment's objects spares the allocator a free
// and a new object per wave, and their echo lists keep their room.
#pragma once

#include <cstddef>
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

 private:
  static constexpr std::size_t kAhead = 8;
  std::vector<Ptr> spare_;
  std::size_t next_ = 0;  // spare_[0, next_) were taken: empty handles
};

}  // namespace FullWaveform

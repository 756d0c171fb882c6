// Online evaluation: turns the scanner's own echo records ("OPP") into waves.
#pragma once

#include <cstdint>
#include <vector>

#include "tessal/MemArray.hpp"
#include "waveform/ScannerDevice.hpp"
#include "waveform/WavePoints.hpp"
#include "waveform/WavePool.hpp"

namespace FullWaveform {

template <class T>
class OnlineEvaluation {
 public:
  using WaveList = std::vector<Vorlap::StrongPtr<WavePoints<T>>>;

  explicit OnlineEvaluation(const ScannerDevice& scanner) : scanner_(scanner) {}

  // Consecutive records of the same shot time and channel form one wave; the wave objects
  // come from `pool` when given.
  WaveList apply(const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& gpsTime,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& range,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, float>>& amplitude,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint8_t>>& channel,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, float>>& reflectance,
                 WavePool<T>* pool = nullptr) const;

 private:
  const ScannerDevice& scanner_;
};

extern template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform

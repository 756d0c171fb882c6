// Peak detection: turns waveform rows into waves of echoes (one wave per row).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tessal/MemArray.hpp"
#include "waveform/FWFModus.hpp"
#include "waveform/ScannerDevice.hpp"
#include "waveform/WavePoints.hpp"
#include "waveform/WavePool.hpp"

namespace FullWaveform {

template <class T>
class PeakDetectionFamily {
 public:
  using WaveList = std::vector<Vorlap::StrongPtr<WavePoints<T>>>;

  // settingsPath: optional detector settings file (empty: built-in defaults);
  // inputFile: the data file the waveforms come from (named in messages).
  PeakDetectionFamily(FWFModus mode, const ScannerDevice& scanner,
                      const std::filesystem::path& settingsPath,
                      const std::filesystem::path& inputFile, std::uint32_t samplesPerWaveform);
  ~PeakDetectionFamily();
  PeakDetectionFamily(const PeakDetectionFamily&) = delete;
  PeakDetectionFamily& operator=(const PeakDetectionFamily&) = delete;

  // Empty when the detector is usable, else why not.
  const std::string& errorText() const { return error_; }

  // One wave per row of `samples` (extents: samples per waveform, rows); the wave objects
  // come from `pool` when given.
  WaveList apply(const Vorlap::StrongPtr<Tessal::MemArray<2, T>>& samples,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint16_t>>& fwfLength,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& gpsTime,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& sblTime,
                 const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint8_t>>& channel,
                 std::int32_t noiseLevel, const std::string& fragmentName,
                 WavePool<T>* pool = nullptr);

 private:
  struct Impl;
  Impl* impl_ = nullptr;
  std::string error_;
};

extern template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform

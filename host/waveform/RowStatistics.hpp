// Row statistics for peak detection: reads one row of integer samples and gives its
// background (the median), noise sigma (standard deviation near the background, echoes
// clipped away), detection threshold and whether the row is clipped. Works on integers
// throughout: the row is digitiser counts, and integer sums are exact and fast.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "waveform/PeakSettings.hpp"

namespace FullWaveform {

struct RowStats {
  std::int32_t background = 0;  // the row's median sample
  double noiseSigma = 0.0, threshold = 0.0, clipLevel = 0.0;
  bool clipped = false;
};

class RowStatistics {
 public:
  explicit RowStatistics(std::size_t maxSamples) : scratch_(maxSamples) {}

  // y holds n samples whose smallest is `lowest` and largest `highest`; noiseLevel > 0 is
  // the threshold above background, else it is estimated from the noise.
  RowStats compute(const std::int32_t* y, std::size_t n, std::int32_t lowest, std::int32_t highest,
                   std::int32_t noiseLevel, const PeakSettings& settings);

  // The sample of rank n / 2 (the upper median for even n).
  std::int32_t median(const std::int32_t* y, std::size_t n, std::int32_t lowest);

 private:
  // noiseSigmaAround from the counts of the last median(); negative when they do not cover
  // the samples near the background.
  double noiseSigmaFromCounts(std::size_t n, std::int32_t background, std::int32_t lowest) const;

  std::uint64_t absoluteDeviationFromCounts(std::size_t n, std::int64_t m) const;
  std::vector<std::int32_t> scratch_;        // exact selection when the counts do not reach
  std::array<std::uint16_t, 256> counts_{};  // samples by their height above the minimum
  std::uint64_t heightSum_ = 0;              // of the samples' heights above the minimum
  bool counted_ = false;                     // the last median came from the counts
};

// Standard deviation of the samples near `background`, echoes excluded by clipping twice at
// 3.5 sigmas (robust, and unlike a median of integer deviations not stepwise).
double noiseSigmaAround(const std::int32_t* y, std::size_t n, std::int32_t background);

}  // namespace FullWaveform

// Scoring of run outputs against a simulated survey's truth. An output point's "GPSTime" (its
// emitting shot) and "MTA" lead back to its recording shot; the point has the true zone when
// the truth holds an echo of that emitting shot recorded that many shots later.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace quillo::sim {

struct ZoneScoreReport {
  std::uint64_t points = 0, correct = 0, noZone = 0, unmatched = 0;
  std::uint64_t trueEchoes =
      0;  // echoes in the truth (waveform rows' first echoes and online records)
  std::uint64_t wrongZone = 0;          // matched to its shot, but not to an echo of that zone
  std::uint64_t realEchoes = 0;         // true echoes of real targets (not birds or dust)
  std::uint64_t realEchoesReached = 0;  // of those, echoes at least one correct point found
  std::uint64_t realMarkedNoise = 0;    // correct points of real targets classified as noise
  // Range error of correctly zoned points against the nearest true echo of their shot (m).
  double rangeErrorMedian = 0.0, rangeErrorP95 = 0.0;
  // confusion[true zone][assigned zone], zones 0 to 9 (9: 9 or more / none)
  std::array<std::array<std::uint64_t, 10>, 10> confusion{};
  double zoneAccuracy() const { return points ? double(correct) / double(points) : 0.0; }
  double reachedShare() const {
    return realEchoes ? double(realEchoesReached) / double(realEchoes) : 0.0;
  }
};

// Reads the truth from `truthFile` (the simulator's output) and scores every point of the
// given run outputs; throws std::runtime_error naming a file that cannot be used.
ZoneScoreReport scoreOutputs(const std::vector<std::string>& outputs, const std::string& truthFile);

std::string reportAsText(const ZoneScoreReport& r);

}  // namespace quillo::sim

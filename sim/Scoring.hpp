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
  // confusion[true zone][assigned zone], zones 0 to 9 (9: 9 or more / none)
  std::array<std::array<std::uint64_t, 10>, 10> confusion{};
  double zoneAccuracy() const { return points ? double(correct) / double(points) : 0.0; }
};

// Reads the truth from `truthFile` (the simulator's output) and scores every point of the
// given run outputs; throws std::runtime_error naming a file that cannot be used.
ZoneScoreReport scoreOutputs(const std::vector<std::string>& outputs, const std::string& truthFile);

std::string reportAsText(const ZoneScoreReport& r);
std::string reportAsJson(const ZoneScoreReport& r);

}  // namespace quillo::sim

// Zone assignment. Reads the run's fixed zone, the waves' travel times and candidates;
// writes zones through setMTA.
#include "zones/ZoneAssignment.hpp"

#include <algorithm>
#include <cmath>

namespace FullWaveform {

namespace {

constexpr int kCandidates = 8;

bool usable(double v) {
  return v != NO_LENGTH && !std::isnan(v);
}

struct RepairWindow {
  double low, high, median;
};

}  // namespace

std::string setFixedMTA(FatBoy<unsigned short>& fb) {
  const int fixed = fb.input->MTA;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    if (!fb.hasWave(i)) continue;
    const double timeOffset = fb.zoneInputOf(i).timeOffset;
    // Eight passes: a failed walk to the fixed zone leaves the shot of the last walk
    // that succeeded, as a walk from zone 0 to 7 would.
    for (int z = 0; z < kCandidates; ++z) {
      fb.setMTA(i, z, 0.0);
      fb.setMTA(i, fixed, 0.0);
      if (std::abs(fb.getLength(i, timeOffset)) > fb.maxTravelTime) fb.setMTA(i, -1, 0.0);
    }
  }
  return "";
}

double quantile(const double& p, const std::vector<double>& values) {
  std::vector<double> kept;
  kept.reserve(values.size());
  for (double v : values)
    if (usable(v)) kept.push_back(v);
  if (kept.empty()) return NO_LENGTH;
  if (p == 0.0) return *std::min_element(kept.begin(), kept.end());
  if (p == 1.0) return *std::max_element(kept.begin(), kept.end());
  const auto k = static_cast<std::size_t>(p * double(kept.size()));
  if (k >= kept.size()) return *std::max_element(kept.begin(), kept.end());
  std::nth_element(kept.begin(), kept.begin() + std::ptrdiff_t(k), kept.end());
  return kept[k];
}

namespace {

// The candidate j nearest the median within the window; -1 when none lies inside.
int nearestCandidate(const double (&c)[kCandidates], const RepairWindow& w) {
  int picked = -1;
  double best = 1.0e9;
  for (int j = 0; j < kCandidates; ++j) {
    if (!(w.low <= c[j] && c[j] <= w.high)) continue;
    const double distance = std::abs(c[j] - w.median);
    if (distance < best) best = distance, picked = j;
  }
  return picked;
}

}  // namespace

std::string repairUncertainMTA(FatBoy<unsigned short>& fb) {
  std::vector<double> ranges(fb.nWaves, NO_LENGTH);
  std::vector<std::uint32_t> uncertain;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    if (!fb.hasWave(i)) continue;
    const double length = fb.getLength(i, fb.zoneInputOf(i).timeOffset);
    if (!usable(length)) continue;
    if (fb.isCertainMTA(i))
      ranges[i] = length;
    else
      uncertain.push_back(i);
  }
  if (fb.nWaves <= 9) return "";
  const double zoneLength = fb.scannerDevice.getMTALengthAsTime();
  const double q10 = quantile(0.1, ranges), q90 = quantile(0.9, ranges);
  const double q50 = quantile(0.5, ranges);
  if (q10 == NO_LENGTH || q90 == NO_LENGTH) return "";
  const RepairWindow window{q10 - 0.2 * zoneLength, q90 + 0.2 * zoneLength, q50};
  for (std::uint32_t u : uncertain) {
    double c[kCandidates];
    std::fill(std::begin(c), std::end(c), NO_LENGTH);
    fb.getLengthAccordingMTA(u, 0, kCandidates, fb.maxTravelTime, c, fb.scannerDevice.minAmplitude);
    const int j = nearestCandidate(c, window);
    fb.setMTA(u, j, 0.0);
  }
  return "";
}

}  // namespace FullWaveform

// Scan-line neighbours: a ring of the current and the three preceding scan lines, each
// with one-degree angle bins. Reads the wave directions; writes transitionTables.
#include <cmath>
#include <numbers>

#include "zones/ResolveMTA.hpp"

namespace FullWaveform {

namespace {

constexpr int kBins = 360;
constexpr int kRingLines = 4;
constexpr double kLineJump = std::numbers::pi / 4;
using Ring = std::vector<std::vector<std::vector<std::uint32_t>>>;

double neighbourAngle(const FatBoy<unsigned short>& fb, std::uint32_t i) {
  double a;
  if (fb.scannerDevice.isRadial()) {
    const auto d = fb.getDir(i);
    a = std::atan2(d.y, d.z);
  } else {
    a = fb.directionAtan2XZ(i);
  }
  if (a <= 0.0) a += 2 * std::numbers::pi;
  return a;
}

// A NaN angle has no bin of its own; it goes to bin 0 rather than anywhere undefined.
int binOf(double angle) {
  const double degrees = angle * 57.29577951308232;
  if (!(degrees >= 0.0)) return 0;
  return degrees >= kBins - 1 ? kBins - 1 : int(degrees);
}

void linkLines(FatBoy<unsigned short>& fb, const Ring& ring, int current) {
  for (int j = 0; j < 3; ++j) {
    const int p = (current + kRingLines - 1 - j) % kRingLines;
    for (int d = 0; d < kBins; ++d) {
      const auto& now = ring[current][d];
      const auto& before = ring[p][d];
      if (now.empty() || before.empty()) continue;
      for (std::size_t k = 0; k < now.size(); ++k)
        fb.transitionTables[j][now[k]] = k < before.size() ? before[k] : before[0];
    }
  }
}

}  // namespace

double scanAngle(const Gemwold::PhysicalSpace::vector& direction) {
  return scanAngleFromAtan2(std::atan2(direction.x, direction.z));
}

double scanAngle(const FatBoy<unsigned short>& fb, std::uint32_t i) {
  return scanAngleFromAtan2(fb.directionAtan2XZ(i));
}

void buildTransitionTables(FatBoy<unsigned short>& fb) {
  const std::uint32_t n = fb.nWaves;
  fb.transitionTables.assign(3, std::vector<std::uint32_t>(n));
  for (auto& table : fb.transitionTables)
    for (std::uint32_t w = 0; w < n; ++w) table[w] = w;
  Ring ring(kRingLines, std::vector<std::vector<std::uint32_t>>(kBins));
  std::uint32_t lines = 0;
  int current = 0;
  double previous = 0.0;
  for (std::uint32_t i = 0; i < n; ++i) {
    const double angle = neighbourAngle(fb, i);
    ring[current][binOf(angle)].push_back(i);
    const bool jump = previous != 0.0 && std::abs(angle - previous) > kLineJump;
    if (jump || i == n - 1) {
      linkLines(fb, ring, current);
      current = int(++lines % kRingLines);
      for (auto& bin : ring[current]) bin.clear();
    }
    previous = angle;
  }
}

}  // namespace FullWaveform

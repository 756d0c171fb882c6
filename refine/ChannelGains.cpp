// Channel gains: the ratio of the receiver channels' gains, read off the echoes recorded in
// both channels (one arrival, two amplitudes). Reads every echo's emitting shot, one-way
// time, channel and amplitude; gives channel 0's amplitude per unit of channel 1's, for the
// bright-echo test where an echo's line holds nothing of its own channel to compare with.
// The median of the pairs: a clipped high-gain amplitude or a faint echo's noise moves it
// little.
#include <algorithm>
#include <cmath>
#include <vector>

#include "refine/Refiner.hpp"

namespace FullWaveform::surface_fit {

namespace {
// Echoes of its shot after one where its other channel's is sought.
constexpr int kPartnerReach = 4;
constexpr double kSameArrival = 0.05;  // m along the beam: one echo reported twice
constexpr std::size_t kMinPairs = 50;  // fewer: the ratio is unknown
}  // namespace

double Refiner::channelGainRatio(std::size_t enough) const {
  std::vector<double> ratios;
  const std::size_t n = byShot_.size();
  const double sameArrival = kSameArrival / shots_.lightSpeed;
  // The echoes of one emitting shot follow each other there.
  for (std::size_t k = 0; k < n && ratios.size() < enough; ++k) {
    const RefineEcho& a = echoes_[byShot_[k]];
    if (a.channel > 1 || !(a.amplitude > 0.0f)) continue;
    for (std::size_t j = k + 1; j < std::min(n, k + 1 + kPartnerReach); ++j) {
      const RefineEcho& b = echoes_[byShot_[j]];
      if (b.emitter != a.emitter) break;
      if (b.channel > 1 || b.channel == a.channel || !(b.amplitude > 0.0f) ||
          std::abs(b.oneWayTime - a.oneWayTime) > sameArrival)
        continue;
      const RefineEcho& high = a.channel == 0 ? a : b;
      const RefineEcho& low = a.channel == 0 ? b : a;
      ratios.push_back(double(high.amplitude) / double(low.amplitude));
      break;
    }
  }
  if (ratios.size() < kMinPairs) return 0.0;
  const auto middle = ratios.begin() + std::ptrdiff_t(ratios.size() / 2);
  std::nth_element(ratios.begin(), middle, ratios.end());
  return *middle;
}

}  // namespace FullWaveform::surface_fit

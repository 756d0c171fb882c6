// Block zone scoring. Reads candidate travel times through getLengthAccordingMTA; changes
// nothing in the store.
#include "zones/BlockScoring.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace FullWaveform {

namespace {

bool contributes(const FatBoy<unsigned short>& fb, std::uint32_t w) {
  return w < fb.nWaves - 1 && w < fb.wavePoints.size() && fb.wavePoints[w];
}

bool isValidLength(double v) {
  return v != NO_LENGTH && !std::isnan(v);
}

// Mean squared difference of successive valid entries of one column.
double roughness(const ZoneScore& s, std::size_t rows, std::uint32_t column) {
  double sum = 0.0, previous = 0.0;
  std::size_t count = 0;
  bool havePrevious = false;
  for (std::size_t k = 0; k < rows; ++k) {
    const double v = s.at(k, column);
    if (!isValidLength(v)) continue;
    if (havePrevious) {
      sum += (v - previous) * (v - previous);
      ++count;
    }
    previous = v;
    havePrevious = true;
  }
  return count ? sum / double(count) : 0.0;
}

}  // namespace

ZoneScore scoreMTAZones(const std::vector<std::uint32_t>& buffer, const std::uint32_t& minZone,
                        const std::uint32_t& maxZone, FatBoy<unsigned short>& fb,
                        const std::vector<std::int32_t>& shift) {
  ZoneScore s;
  const std::size_t n = buffer.size();
  s.columns = maxZone;
  s.table.assign(n * maxZone, NO_LENGTH);
  const double minAmplitude = fb.scannerDevice.minAmplitude;
  for (std::size_t k = 0; k < n; ++k) {
    if (!contributes(fb, buffer[k]) || maxZone == 0) continue;
    fb.getLengthAccordingMTA(buffer[k], shift[k], maxZone, fb.maxTravelTime, &s.table[k * maxZone],
                             minAmplitude);
  }
  double best = 1.0e9;
  // An empty block has nothing to score: no zone, whatever the range.
  for (std::uint32_t z = minZone; n > 0 && z < maxZone; ++z) {
    const double score = roughness(s, n, z);
    if (best > score) {
      s.zone = std::int32_t(z);
      s.ratio = score / best;
      best = score;
    }
  }
  s.score = best;
  return s;
}

std::vector<std::int32_t> mtaTransition(const std::vector<std::uint32_t>& buffer,
                                        const std::int32_t&, FatBoy<unsigned short>& fb,
                                        const std::uint32_t&, const std::uint32_t&) {
  const std::size_t n = buffer.size();
  std::vector<double> lengths(n, NO_LENGTH);
  for (std::size_t k = 0; k < n; ++k) {
    if (!contributes(fb, buffer[k])) continue;
    fb.getLengthAccordingMTA(buffer[k], 0, 1, fb.maxTravelTime, &lengths[k],
                             fb.scannerDevice.minAmplitude);
  }
  std::vector<std::size_t> order(n);
  std::iota(order.begin(), order.end(), 0);
  // NaN sorts after everything (it has no place in an ordinary ascending order).
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    if (std::isnan(lengths[a])) return false;
    return std::isnan(lengths[b]) || lengths[a] < lengths[b];
  });
  TransitionTest test{0.2 * fb.scannerDevice.getMTALengthAsTime()};
  bool havePredecessor = false;
  double predecessor = 0.0;
  for (std::size_t p = 0; p < n; ++p) {
    const double v = lengths[order[p]];
    if (!isValidLength(v)) continue;
    if (havePredecessor) test(predecessor, v, std::int32_t(p));
    predecessor = v;
    havePredecessor = true;
  }
  std::vector<std::int32_t> shift(n, 0);
  for (std::int32_t p = 0; test.transition > 0 && p < test.transition; ++p) shift[order[p]] = -1;
  return shift;
}

BlockResult evaluateBlockMTA(const std::vector<std::uint32_t>& buffer, const std::int32_t& block,
                             FatBoy<unsigned short>& fb, const std::uint32_t& minZone,
                             const std::uint32_t& maxZone) {
  const std::size_t n = buffer.size();
  const std::vector<std::int32_t> zeros(n, 0);
  ZoneScore first = scoreMTAZones(buffer, minZone, maxZone, fb, zeros);
  std::vector<std::int32_t> shift = mtaTransition(buffer, block, fb, minZone, maxZone);
  ZoneScore second = scoreMTAZones(buffer, minZone, maxZone, fb, shift);
  const bool useSecond = first.score > second.score;
  const ZoneScore& chosen = useSecond ? second : first;
  const std::vector<std::int32_t>& usedShift = useSecond ? shift : zeros;
  BlockResult r{chosen.ratio, chosen.zone, std::vector<std::int32_t>(n, -1)};
  for (std::size_t k = 0; k < n; ++k) {
    const std::int32_t z = chosen.zone - usedShift[k];
    if (z >= 0 && std::uint32_t(z) < maxZone && chosen.at(k, std::uint32_t(z)) != NO_LENGTH)
      r.zones[k] = z;
  }
  return r;
}

}  // namespace FullWaveform

// Noise classification. Reads zones, travel times, shot geometry and echoes; releases wave
// slots, removes duplicate online echoes and sets the noise classification.
#include "classify/NoiseClassification.hpp"

#include <cmath>

#include "store/KeyedOrder.hpp"

namespace FullWaveform {

namespace {

// The waves left after the drop that the duplicate removal needs: the waveform waves by
// the time of their shot (in wave order within a shot) and the online waves in wave order.
struct WavesLeft {
  std::vector<Keyed<std::uint32_t>> waveformsByShot;
  std::vector<std::uint32_t> online;
};

// Drops wave i when it has no usable travel time and marks it as noise when near-range; a
// NaN travel time is neither dropped nor marked: the wave goes on as it is.
bool keepAndMarkNearRange(FatBoy<unsigned short>& fb, std::uint32_t i) {
  if (!fb.hasWave(i)) return false;
  auto& wave = fb.wavePoints[i];
  const double length = fb.getLength(i, fb.zoneInputOf(i).timeOffset);
  if (fb.getMTA(i) < 0 || length > fb.maxTravelTime || length == NO_LENGTH || length < 0.0) {
    fb.wavePool.giveBack(wave);
    return false;
  }
  if (length < kNearRangeLimit) wave->setClassification(Quorvane::DrelmClass::noise);
  return true;
}

// One pass over the waves' zone inputs (the objects, scattered in the heap, are read only for
// the waves dropped or marked): the drop, and when `sortLeft` the lists of the waves left.
WavesLeft dropUnusableAndMarkNearRange(FatBoy<unsigned short>& fb, bool sortLeft) {
  WavesLeft left;
  if (sortLeft) left.waveformsByShot.reserve(fb.nWaves);
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    if (!keepAndMarkNearRange(fb, i) || !sortLeft) continue;
    if (fb.zoneInputOf(i).amplitudeExempt) {
      left.online.push_back(i);
      continue;
    }
    const double shot = fb.getShotTime(i);
    // A shot time that is not a number matches no other wave's shot.
    if (!std::isnan(shot)) left.waveformsByShot.push_back({shot, i});
  }
  stableOrderByKey(left.waveformsByShot);
  return left;
}

// The echo's own one-way travel time from its emitting shot.
double echoTravelTime(const EchoPoint& e, const WavePoints<unsigned short>& w, double length) {
  return (e.time - w.timeOffset) * 0.5 + length;
}

// Removes the echoes of online wave o that coincide with an echo of waveform wave f.
void removeDuplicates(FatBoy<unsigned short>& fb, std::uint32_t o, std::uint32_t f, double lo) {
  auto& online = *fb.wavePoints[o];
  const auto& full = *fb.wavePoints[f];
  const double lf = fb.getLength(f, full.timeOffset);
  for (const auto& ef : full.echoes) {
    const double pf = echoTravelTime(ef, full, lf);
    std::erase_if(online.echoes, [&](const EchoPoint& eo) {
      return std::abs(echoTravelTime(eo, online, lo) - pf) < kCoincidenceTolerance;
    });
    if (online.echoes.empty()) return;
  }
}

void removeDuplicateOnlineEchoes(FatBoy<unsigned short>& fb, const WavesLeft& left) {
  const auto& byShot = left.waveformsByShot;
  for (std::size_t k = 0; k < left.online.size(); ++k) {
    if (k + fb.kPrefetchAhead < left.online.size())
      fb.prefetchWave(left.online[k + fb.kPrefetchAhead]);
    const std::uint32_t o = left.online[k];
    auto& w = fb.wavePoints[o];
    const auto group = entriesWithKey(byShot, fb.getShotTime(o));
    if (group.empty()) continue;
    const double lo = fb.getLength(o, w->timeOffset);
    for (const auto& f : group) {
      if (w->echoes.empty()) break;
      removeDuplicates(fb, o, f.value, lo);
    }
    if (w->echoes.empty()) fb.wavePool.giveBack(w);
  }
}

}  // namespace

void classifyNoise(FatBoy<unsigned short>& fb) {
  const bool bothSources = fb.FWF && fb.OPP;
  const WavesLeft left = dropUnusableAndMarkNearRange(fb, bothSources);
  if (bothSources) removeDuplicateOnlineEchoes(fb, left);
}

}  // namespace FullWaveform

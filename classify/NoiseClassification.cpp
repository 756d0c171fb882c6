// Noise classification. Reads zones, travel times, shot geometry and echoes; releases wave
// slots, removes duplicate online echoes and sets the noise classification.
#include "classify/NoiseClassification.hpp"

#include <cmath>

#include "store/KeyedOrder.hpp"

namespace FullWaveform {

namespace {

// Drops waves without a usable travel time and marks near-range ones as noise. A NaN travel
// time is neither dropped nor marked: the wave goes on as it is.
void dropUnusableAndMarkNearRange(FatBoy<unsigned short>& fb) {
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    fb.prefetchWave(i + fb.kPrefetchAhead);
    auto& wave = fb.wavePoints[i];
    if (!wave) continue;
    const double length = fb.getLength(i, wave->timeOffset);
    if (fb.getMTA(i) < 0 || length > fb.maxTravelTime || length == NO_LENGTH || length < 0.0) {
      fb.wavePool.giveBack(wave);
      continue;
    }
    if (length < kNearRangeLimit) wave->setClassification(Quorvane::DrelmClass::noise);
  }
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

// The waveform waves by the time of their shot, in wave order within a shot.
std::vector<Keyed<std::uint32_t>> waveformWavesByShot(const FatBoy<unsigned short>& fb) {
  std::vector<Keyed<std::uint32_t>> byShot;
  byShot.reserve(fb.nWaves);
  for (std::uint32_t f = 0; f < fb.nWaves; ++f) {
    fb.prefetchWave(f + fb.kPrefetchAhead);
    const auto& w = fb.wavePoints[f];
    if (!w || w->amplitudeExempt) continue;
    const double shot = fb.getShotTime(f);
    // A shot time that is not a number matches no other wave's shot.
    if (!std::isnan(shot)) byShot.push_back({shot, f});
  }
  stableOrderByKey(byShot);
  return byShot;
}

void removeDuplicateOnlineEchoes(FatBoy<unsigned short>& fb) {
  const auto byShot = waveformWavesByShot(fb);
  for (std::uint32_t o = 0; o < fb.nWaves; ++o) {
    fb.prefetchWave(o + fb.kPrefetchAhead);
    auto& w = fb.wavePoints[o];
    if (!w || !w->amplitudeExempt) continue;
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
  dropUnusableAndMarkNearRange(fb);
  if (fb.FWF && fb.OPP) removeDuplicateOnlineEchoes(fb);
}

}  // namespace FullWaveform

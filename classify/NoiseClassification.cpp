// Noise classification. Reads zones, travel times, shot geometry and echoes; releases wave
// slots, removes duplicate online echoes and sets the noise classification.
#include "classify/NoiseClassification.hpp"

#include <cmath>
#include <map>

#include "store/FragmentLoading.hpp"
#include "vorlap/Console.hpp"

namespace FullWaveform {

namespace {

bool isFinite(const Gemwold::PhysicalSpace::vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// A beam that points nowhere (zero or not finite) or starts nowhere would put the wave's
// points at the beam origin or at NaN: such a wave cannot be placed.
bool hasUsableBeam(const FatBoy<unsigned short>& fb, std::uint32_t i) {
  const auto d = fb.getDir(i);
  const auto o = fb.getBeamCoords(i);
  return isFinite(d) && (d.x != 0.0 || d.y != 0.0 || d.z != 0.0) && isFinite({o.x, o.y, o.z});
}

void dropUnusableAndMarkNearRange(FatBoy<unsigned short>& fb) {
  std::uint32_t noBeam = 0;
  for (std::uint32_t i = 0; i < fb.nWaves; ++i) {
    auto& wave = fb.wavePoints[i];
    if (!wave) continue;
    const double length = fb.getLength(i, wave->timeOffset);
    // Written so that a NaN length is unusable too.
    if (fb.getMTA(i) < 0 || length == NO_LENGTH || !(length >= 0.0 && length <= fb.maxTravelTime)) {
      wave.reset();
      continue;
    }
    if (!hasUsableBeam(fb, i)) {
      wave.reset();
      ++noBeam;
      continue;
    }
    if (length < kNearRangeLimit) wave->setClassification(Quorvane::DrelmClass::noise);
  }
  if (noBeam)
    Vorlap::Console() << "classifyNoise " << fragmentPlace(fb.input->inputFileName, fb.fragmentName)
                      << ": grid \"Shots\": " << noBeam
                      << " wave(s) dropped: their shot's \"Waveforms.DirectionDelta\" is zero or "
                         "not finite, or its \"Positions\" not finite";
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

void removeDuplicateOnlineEchoes(FatBoy<unsigned short>& fb) {
  std::map<double, std::vector<std::uint32_t>> byShot;
  for (std::uint32_t f = 0; f < fb.nWaves; ++f) {
    const auto& w = fb.wavePoints[f];
    if (w && !w->amplitudeExempt) byShot[fb.getShotTime(f)].push_back(f);
  }
  for (std::uint32_t o = 0; o < fb.nWaves; ++o) {
    auto& w = fb.wavePoints[o];
    if (!w || !w->amplitudeExempt) continue;
    auto group = byShot.find(fb.getShotTime(o));
    if (group == byShot.end()) continue;
    const double lo = fb.getLength(o, w->timeOffset);
    for (std::uint32_t f : group->second) {
      if (w->echoes.empty()) break;
      removeDuplicates(fb, o, f, lo);
    }
    if (w->echoes.empty()) w.reset();
  }
}

}  // namespace

void classifyNoise(FatBoy<unsigned short>& fb) {
  dropUnusableAndMarkNearRange(fb);
  if (fb.FWF && fb.OPP) removeDuplicateOnlineEchoes(fb);
}

}  // namespace FullWaveform

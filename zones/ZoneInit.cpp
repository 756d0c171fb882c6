// Zone state of a fragment: iniMTA extends the run-long shot-time index and gives every
// wave zone 0, its recording shot and certainty; setMTA is the one writer of zones. Reads
// the waves and the Shots arrays; writes nWaves, zoneInputs, shotTimeIndex, recordingShot, mta,
// shotIndex, certainMTA, maxTravelTime, the carried shots and the per-shot angle caches.
#include <algorithm>
#include <cmath>
#include <limits>

#include "store/FragmentLoading.hpp"
#include "vorlap/Console.hpp"
#include "zones/ZoneInit.hpp"

namespace FullWaveform {

namespace {

// The last shots of a fragment, in time order, for walks that start in the next fragment.
std::vector<CarriedShot> tailOf(const SHOT_Data& a, std::size_t count) {
  std::vector<CarriedShot> tail;
  const std::size_t n = a.GPSTime->size();
  for (std::size_t s = n - std::min(n, count); s < n; ++s)
    tail.push_back({a.GPSTime->get(s), a.Positions->get(s), a.DirectionDelta->get(s)});
  return tail;
}

// Shot times that are not a number cannot be ordered and stay out of the index. Of a repeated
// time the later shot takes the entry, so a zone walk across it counts one shot short; the
// waves go on as they are, and the faults are reported so that the user knows where zones
// may be off. Backward steps are kept too (the index orders by time).
struct ShotTimeFaults {
  std::size_t notANumber = 0, infinite = 0, repeated = 0, backwards = 0;
  double previous = -std::numeric_limits<double>::infinity();

  bool admit(double t) {
    if (std::isnan(t)) return ++notANumber, false;
    if (std::isinf(t)) ++infinite;
    if (t == previous) ++repeated;
    if (t < previous) ++backwards;
    previous = t;
    return true;
  }
  void report(const std::string& place) const {
    if (notANumber + infinite + repeated + backwards == 0) return;
    Vorlap::Console() << "FatBoy::iniMTA " << place
                      << ": field \"GPSTime\" of grid \"Shots\": " << notANumber
                      << " time(s) not a number (shots skipped), " << infinite << " infinite, "
                      << repeated << " repeated (the later shot kept), " << backwards
                      << " going backwards; zones of the waves recorded just after them may be off";
  }
};

}  // namespace

template <class T>
bool FatBoy<T>::iniMTA() {
  nWaves = static_cast<std::uint32_t>(wavePoints.size());
  zoneInputs.clear();
  recordingShot.clear();
  shotAtan2XZ.clear();
  shotAtan2ZX.clear();
  if (nWaves <= 2) return false;
  const auto& times = *SHOT->arrays.GPSTime;
  const std::size_t count = times.size();
  ShotTimeFaults faults;
  std::vector<ShotTimeIndex::value_type> batch;
  batch.reserve(count);
  for (std::size_t s = 0; s < count; ++s) {
    const double t = times.get(s);
    if (faults.admit(t)) batch.emplace_back(t, static_cast<std::uint32_t>(s));
  }
  shotTimeIndex.insert(std::move(batch));
  carriedShots = std::move(pendingCarry);
  pendingCarry = tailOf(SHOT->arrays, kCarriedShotCount);
  if (shotTimeIndex.size() < 3) return false;
  certainMTA.assign(nWaves, true);
  mta.assign(nWaves, 0);
  shotIndex.resize(nWaves);
  for (std::uint32_t i = 0; i < nWaves; ++i) shotIndex[i] = i;
  std::uint32_t unmatched = 0;
  recordingShot.assign(nWaves, shotTimeIndex.end());
  std::vector<WaveZoneInput> inputs(nWaves);
  // Waves come in time order: each search starts from the previous wave's shot.
  auto from = shotTimeIndex.begin();
  for (std::uint32_t i = 0; i < nWaves; ++i) {
    prefetchWave(i + kPrefetchAhead);
    if (!hasWave(i)) continue;
    inputs[i] = zoneInputOfObject(*wavePoints[i]);
    const double time = inputs[i].waveTime;
    auto it = shotTimeIndex.lowerBoundFrom(from, time);
    if (it == shotTimeIndex.end() || it->first != time) {
      ++unmatched;
      continue;
    }
    recordingShot[i] = from = it;
    shotIndex[i] = it->second;
  }
  zoneInputs = std::move(inputs);
  faults.report(fragmentPlace(input->inputFileName, fragmentName));
  // Such waves get no zone later on and are dropped; the count tells why points are missing.
  if (unmatched)
    Vorlap::Console() << "FatBoy::iniMTA " << fragmentPlace(input->inputFileName, fragmentName)
                      << ": " << unmatched
                      << " wave(s) whose \"GPSTime\" matches no shot time get no zone";
  firstShot = shotTimeIndex.cbegin();
  lastShot = std::prev(shotTimeIndex.cend());
  shotEnd = shotTimeIndex.cend();
  nShots = static_cast<std::uint32_t>(count);
  bindShotColumns();
  shotAtan2XZ.assign(nShots, kAngleUnset);
  shotAtan2ZX.assign(nShots, kAngleUnset);
  maxTravelTime = scannerDevice.getMTALengthAsTime() * 9.0;
  return true;
}

template <class T>
void FatBoy<T>::setMTA(const unsigned& i, const int& zone, const double& ratio) {
  if (zone < 0) {
    mta[i] = zone;
    return;
  }
  auto it = hasWave(i) ? recordingShotOf(i) : shotTimeIndex.find(0.0);
  const bool found = it != shotEnd;
  if (!(ratio < 0.98)) certainMTA[i] = false;
  if (!found) {
    mta[i] = -1;
    return;
  }
  for (int step = 0; step < zone; ++step) {
    if (it == firstShot) {
      mta[i] = -1;
      return;
    }
    --it;
  }
  mta[i] = zone;
  // The entry may belong to an earlier fragment: refer to its carried copy, so that no
  // query reads this fragment's arrays with another fragment's index.
  if (it->second < nShots && shotTimeAt(it->second) == it->first) {
    shotIndex[i] = it->second;
    return;
  }
  shotIndex[i] = ~0u;
  for (std::size_t j = 0; j < carriedShots.size(); ++j) {
    if (carriedShots[j].time == it->first) shotIndex[i] = kCarriedShotBit | std::uint32_t(j);
  }
}

std::string removeNearRangeWaves(FatBoy<unsigned short>& fatBoy) {
  const double limit = fatBoy.scannerDevice.minTimeOffset;
  for (std::uint32_t i = 0; i < fatBoy.wavePoints.size(); ++i) {
    if (!fatBoy.hasWave(i)) continue;
    const WaveZoneInput wave = fatBoy.zoneInputOf(i);
    if (wave.noEchoes || (-limit < wave.timeOffset && wave.timeOffset < limit))
      fatBoy.wavePool.giveBack(fatBoy.wavePoints[i]);
  }
  return "";
}

template bool FatBoy<unsigned short>::iniMTA();
template void FatBoy<unsigned short>::setMTA(const unsigned&, const int&, const double&);

}  // namespace FullWaveform

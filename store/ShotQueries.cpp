// Shot geometry and travel-time queries of one wave. Reads the Shots arrays through their
// offset and stride, the shot-time index and the per-wave zone state; allocates nothing
// (the angle caches are sized by iniMTA).
// A shot index with kCarriedShotBit names a shot of the previous fragment that a zone walk
// reached; any other index not below nShots has the neutral answers.
#include <cmath>
#include <type_traits>

#include "store/FatBoy.hpp"

namespace FullWaveform {

using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

// Reads the one array a query needs: a wave's shot is looked up for every wave of every stage.
template <class T>
template <class V>
bool FatBoy<T>::readShot(std::uint32_t s, Array1<V> SHOT_Data::*array, V CarriedShot::*member,
                         V& out) const {
  if (s < nShots) {
    if (shotColumns_.set) {
      out = column(shotColumns_, member).at(s);
      return true;
    }
    const auto& a = SHOT->arrays;
    if (!a.GPSTime || !a.Positions || !a.DirectionDelta) return false;
    out = (a.*array)->get(s);
    return true;
  }
  if ((s & kCarriedShotBit) == 0) return false;
  const std::uint32_t j = s & ~kCarriedShotBit;
  if (j >= carriedShots.size()) return false;
  out = carriedShots[j].*member;
  return true;
}

template <class T>
template <class V>
const typename FatBoy<T>::template ShotColumn<V>& FatBoy<T>::column(const ShotColumns& c,
                                                                    V CarriedShot::*member) {
  if constexpr (std::is_same_v<V, double>)
    return c.time;
  else if constexpr (std::is_same_v<V, point>)
    return c.position;
  else
    return c.direction;
  (void)member;
}

// Set only when all three arrays are there: without one of them every query of a local shot
// has the neutral answer, which readShot then gives from the arrays themselves.
template <class T>
void FatBoy<T>::bindShotColumns() {
  const auto& a = SHOT->arrays;
  shotColumns_.set = a.GPSTime && a.Positions && a.DirectionDelta;
  if (!shotColumns_.set) return;
  shotColumns_.time.bind(a.GPSTime);
  shotColumns_.position.bind(a.Positions);
  shotColumns_.direction.bind(a.DirectionDelta);
}

// A wave whose time changed since iniMTA is searched for again.
template <class T>
ShotTimeIndex::const_iterator FatBoy<T>::recordingShotOf(const unsigned& i) const {
  const double time = zoneInputOf(i).waveTime;
  if (i < recordingShot.size()) {
    const auto it = recordingShot[i];
    if (it != shotEnd && it->first == time) return it;
  }
  const auto it = shotTimeIndex.lower_bound(time);
  return it != shotEnd && it->first == time ? it : shotEnd;
}

template <class T>
double FatBoy<T>::getShotTime(const unsigned& i) const {
  double time = 0.0;
  if (i >= shotIndex.size() ||
      !readShot(shotIndex[i], &SHOT_Data::GPSTime, &CarriedShot::time, time))
    return 0.0;
  return time;
}

template <class T>
point FatBoy<T>::getBeamCoords(const unsigned& i) const {
  point position;
  if (i >= shotIndex.size() ||
      !readShot(shotIndex[i], &SHOT_Data::Positions, &CarriedShot::position, position))
    return point{};
  return position;
}

template <class T>
vector FatBoy<T>::getDir(const unsigned& i) const {
  vector direction;
  if (i >= shotIndex.size() ||
      !readShot(shotIndex[i], &SHOT_Data::DirectionDelta, &CarriedShot::direction, direction))
    return vector{};
  return direction;
}

template <class T>
double FatBoy<T>::getLength(const unsigned& i, const double& t) const {
  if (!hasWave(i)) return NO_LENGTH;
  if (i >= mta.size() || mta[i] < 0) return NO_LENGTH;
  double time = 0.0;
  if (!readShot(shotIndex[i], &SHOT_Data::GPSTime, &CarriedShot::time, time)) return NO_LENGTH;
  return (zoneInputOf(i).waveTime + t - time) * 0.5;
}

template <class T>
template <class F>
double FatBoy<T>::cachedAngle(const unsigned& i, std::vector<double>& cache, F angle) const {
  const std::uint32_t s = i < shotIndex.size() ? shotIndex[i] : ~0u;
  if (s >= cache.size()) return angle(getDir(i));
  if (cache[s] == kAngleUnset) cache[s] = angle(getDir(i));
  return cache[s];
}

template <class T>
double FatBoy<T>::directionAtan2XZ(const unsigned& i) const {
  return cachedAngle(i, shotAtan2XZ, [](const vector& d) { return std::atan2(d.x, d.z); });
}

template <class T>
double FatBoy<T>::directionAtan2ZX(const unsigned& i) const {
  return cachedAngle(i, shotAtan2ZX, [](const vector& d) { return std::atan2(d.z, d.x); });
}

template <class T>
void FatBoy<T>::getLengthAccordingMTA(const unsigned& i, const int& dir, const unsigned& n,
                                      const double& maxLength, double* out,
                                      const double& threshold) const {
  if (!hasWave(i) || shotTimeIndex.empty()) return;
  const WaveZoneInput wave = zoneInputOf(i);
  auto it = recordingShotOf(i);
  if (it == shotEnd) return;
  if (dir < 0) {
    if (it == firstShot) return;
    --it;
  } else if (dir > 0) {
    if (it == lastShot) return;
    ++it;
  }
  if (n == 0) return;
  const bool amplitudeFails =
      !wave.amplitudeExempt && !(static_cast<double>(wave.amplitude) >= threshold);
  // The walk below, over entries in one array: n of them, or up to the first shot.
  std::size_t count = n;
  const auto* entries =
      firstShot == shotTimeIndex.cbegin() ? shotTimeIndex.plainEntriesUpTo(it, count) : nullptr;
  if (entries) {
    const double time = wave.waveTime + wave.timeOffset;
    for (std::size_t k = 0; k < count; ++k) {
      const double length = (time - entries[count - 1 - k].first) * 0.5;
      out[k] = (length > maxLength || amplitudeFails) ? NO_LENGTH : length;
    }
    return;
  }
  for (unsigned k = 0;; ++k) {
    const double length = (wave.waveTime + wave.timeOffset - it->first) * 0.5;
    out[k] = (length > maxLength || amplitudeFails) ? NO_LENGTH : length;
    if (it == firstShot || k + 1 == n) return;
    --it;
  }
}

template void FatBoy<unsigned short>::bindShotColumns();
template double FatBoy<unsigned short>::getShotTime(const unsigned&) const;
template point FatBoy<unsigned short>::getBeamCoords(const unsigned&) const;
template vector FatBoy<unsigned short>::getDir(const unsigned&) const;
template double FatBoy<unsigned short>::getLength(const unsigned&, const double&) const;
template double FatBoy<unsigned short>::directionAtan2XZ(const unsigned&) const;
template double FatBoy<unsigned short>::directionAtan2ZX(const unsigned&) const;
template void FatBoy<unsigned short>::getLengthAccordingMTA(const unsigned&, const int&,
                                                            const unsigned&, const double&, double*,
                                                            const double&) const;
template ShotTimeIndex::const_iterator FatBoy<unsigned short>::recordingShotOf(
    const unsigned&) const;

}  // namespace FullWaveform

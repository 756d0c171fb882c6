// Helpers for hand-made refinement inputs shared by the refinement's tests.
#pragma once

#include <cstdint>

#include "output/PointGeometry.hpp"
#include "refine/SurfaceFit.hpp"

namespace quillo::test {

// A deterministic value in [-1, 1) per shot: the pulse-position modulation of a scan.
inline double jitterOf(std::uint64_t k) {
  k = (k + 0x9e3779b97f4a7c15ull) * 0xbf58476d1ce4e5b9ull;
  k ^= k >> 31;
  k *= 0x94d049bb133111ebull;
  k ^= k >> 29;
  return double(k % 2000000) / 1000000.0 - 1.0;
}

// Gives an echo the zone `zone` as the block method would: the same arrival, another emitter.
inline void assignEchoZone(FullWaveform::RefineEcho& e, const FullWaveform::ShotTable& shots,
                           int zone) {
  const auto to = std::uint32_t(std::int64_t(e.emitter) + e.zone - zone);
  e.oneWayTime = FullWaveform::oneWayTimeFrom(e.oneWayTime, shots.time[e.emitter], shots.time[to]);
  e.emitter = to;
  e.zone = std::uint8_t(zone);
}

}  // namespace quillo::test

// Helpers for hand-made refinement inputs shared by the refinement's tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "output/PointGeometry.hpp"
#include "refine/RefineWindow.hpp"
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

// Shots [lo, hi) of a table, as the window takes a fragment's shots.
inline FullWaveform::FragmentShots shotSlice(const FullWaveform::ShotTable& table, std::size_t lo,
                                             std::size_t hi) {
  FullWaveform::FragmentShots shots;
  const auto from = std::ptrdiff_t(lo), to = std::ptrdiff_t(hi);
  shots.time.assign(table.time.begin() + from, table.time.begin() + to);
  shots.origin.assign(table.origin.begin() + from, table.origin.begin() + to);
  shots.direction.assign(table.direction.begin() + from, table.direction.begin() + to);
  return shots;
}

// Echoes `members` of a scan as the window takes them: each by its emitter's time.
inline std::vector<FullWaveform::WindowEcho> windowEchoes(const FullWaveform::ShotTable& table,
                                                          const FullWaveform::RefineEchoes& echoes,
                                                          const std::vector<std::size_t>& members) {
  std::vector<FullWaveform::WindowEcho> out;
  for (const std::size_t i : members) {
    const FullWaveform::RefineEcho& e = echoes[i];
    out.push_back({table.time[e.emitter], e.oneWayTime, e.zone, e.noise, e.channel, e.amplitude});
  }
  return out;
}

}  // namespace quillo::test

// Helpers for hand-made refinement inputs shared by the refinement's tests.
#pragma once

#include <cstdint>

#include "output/PointGeometry.hpp"
#include "refine/SurfaceFit.hpp"

namespace quillo::test {

// Gives an echo the zone `zone` as the block method would: the same arrival, another emitter.
inline void assignEchoZone(FullWaveform::RefineEcho& e, const FullWaveform::ShotTable& shots,
                           int zone) {
  const auto to = std::uint32_t(std::int64_t(e.emitter) + e.zone - zone);
  e.oneWayTime = FullWaveform::oneWayTimeFrom(e.oneWayTime, shots.time[e.emitter], shots.time[to]);
  e.emitter = to;
  e.zone = std::uint8_t(zone);
}

}  // namespace quillo::test

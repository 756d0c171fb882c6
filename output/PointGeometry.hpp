// Point geometry shared by the point-cloud assembly and the zone refinement: where an echo
// lies for a given emitting shot, its scan-angle rank and direction step, and the numbering
// of a shot's returns by range. One place, so a refined point is placed exactly as assembled.
#pragma once

#include <cstdint>
#include <vector>

#include "gemwold/PhysicalSpace.hpp"
#include "run/Export.hpp"
#include "tessal/MemArray.hpp"

namespace FullWaveform {

struct EchoPlacement {
  double range;
  Gemwold::PhysicalSpace::point position;
};

// An echo `oneWayTime` seconds (one way) along the emitting shot's beam. Inline: the refinement
// places every echo once or more per test, where a call cost more than the arithmetic.
inline EchoPlacement placeEcho(double oneWayTime, const Gemwold::PhysicalSpace::vector& dir,
                               const Gemwold::PhysicalSpace::point& origin, double lightSpeed) {
  const double d = oneWayTime, v = lightSpeed;
  return {v * d, {dir.x * d * v + origin.x, dir.y * d * v + origin.y, dir.z * d * v + origin.z}};
}

// The same echo's one-way time measured from another emitting shot: the arrival stays, so
// the time grows by half the gap between the two shots.
inline double oneWayTimeFrom(double oneWayTime, double fromShotTime, double toShotTime) {
  return oneWayTime + (fromShotTime - toShotTime) * 0.5;
}

QUILLO_API std::int16_t scanAngleRankOf(const Gemwold::PhysicalSpace::vector& dir);
// The same from atan2(dir.z, dir.x), where the caller has it.
QUILLO_API std::int16_t scanAngleRankFromAtan2(double atan2ZX);

// The range step of one waveform sample (1 when the scanner gives none).
QUILLO_API double sampleRangeStep(double sampleInterval, double lightSpeed);
inline Gemwold::PhysicalSpace::vector directionDeltaOf(const Gemwold::PhysicalSpace::vector& dir,
                                                       double step) {
  return {dir.x * step, dir.y * step, dir.z * step};
}

// A point that takes part in the numbering of its shot's returns (shot by GPS time).
struct ShotReturn {
  double time, range;
  std::uint32_t point;
};
using ShotReturns = std::vector<ShotReturn>;
// Ranks the points of each shot by range, nearest first; of points of one shot at one range
// only the last in `returns` counts, the others keep what they had. Sorts `returns`. False
// when a shot has more than 255 distinct ranges.
QUILLO_API bool numberReturns(ShotReturns& returns, Tessal::MemArray<1, std::uint8_t>& returnNumber,
                              Tessal::MemArray<1, std::uint8_t>& numberOfReturns);

}  // namespace FullWaveform

// Point geometry: echo placement, scan-angle rank, sample step and return numbering.
#include "output/PointGeometry.hpp"

#include <cmath>
#include <numbers>

namespace FullWaveform {

EchoPlacement placeEcho(double d, const Gemwold::PhysicalSpace::vector& dir,
                        const Gemwold::PhysicalSpace::point& origin, double v) {
  return {v * d, {dir.x * d * v + origin.x, dir.y * d * v + origin.y, dir.z * d * v + origin.z}};
}

std::int16_t scanAngleRankOf(const Gemwold::PhysicalSpace::vector& dir) {
  const double angle = std::atan2(dir.z, dir.x) * 180.0 / std::numbers::pi / 0.006;
  if (!(std::fabs(angle) < 2147483648.0)) return 0;  // NaN or out of 32-bit range
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::int32_t>(angle)));
}

double sampleRangeStep(double sampleInterval, double lightSpeed) {
  const double step = sampleInterval * lightSpeed * 0.5;
  return step == 0.0 ? 1.0 : step;
}

bool numberReturns(const ShotReturns& shots, Tessal::MemArray<1, std::uint8_t>& returnNumber,
                   Tessal::MemArray<1, std::uint8_t>& numberOfReturns) {
  for (const auto& [time, byRange] : shots) {
    std::uint32_t k = 1;
    for (const auto& [range, point] : byRange) {
      returnNumber.set(point, std::uint8_t(k++));
      numberOfReturns.set(point, std::uint8_t(byRange.size()));
    }
    if (byRange.size() > 255) return false;
  }
  return true;
}

}  // namespace FullWaveform

// Automatic zone resolution over scan-line neighbours and blocks of waves.
#pragma once

#include <array>
#include <cstdint>
#include <numbers>
#include <string>

#include "run/Export.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

// Angle of a beam direction, atan2(x, z), mapped to [0, 2 pi).
inline double scanAngleFromAtan2(double a) {
  return a < 0.0 ? a + 2 * std::numbers::pi : a;
}
double scanAngle(const Gemwold::PhysicalSpace::vector& direction);
// The same for wave i's direction, from the store's per-shot cache.
double scanAngle(const FatBoy<unsigned short>& fatBoy, std::uint32_t i);

// Zones minZone to maxZone - 1 are evaluated in the block pass.
struct ZoneRange {
  std::uint32_t minZone, maxZone;
};

// The dominant zone (most blocks; ties to the lower zone) +- 2, clipped to zones 0 to 7.
ZoneRange zoneRangeAround(const std::array<std::uint32_t, 8>& histogram);

// Links every wave to the waves at the same scan angle in the three preceding scan lines.
void buildTransitionTables(FatBoy<unsigned short>& fatBoy);

// The driver stage: neighbours, the 1 % sampling pass for the dominant zone, then every
// block over the dominant zone +- 2. Always returns the empty text.
QUILLO_API std::string resolveMTA(FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform

// Noise classification: drops waves without a usable travel time, marks near-range echoes as
// noise, and removes online echoes that duplicate a waveform echo of the same shot.
#pragma once

#include "run/Export.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

// One-way travel time below which an echo is near-range noise (480 coincidence tolerances).
inline constexpr double kNearRangeLimit = 4.0038937065517474e-07;
// One-way travel times closer than this are the same echo seen twice.
inline constexpr double kCoincidenceTolerance = 8.341445221982807e-10;

QUILLO_API void classifyNoise(FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform

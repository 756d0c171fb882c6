// Zone initialisation stages that the driver runs right after wave extraction.
#pragma once

#include <string>

#include "run/Export.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

// Releases waves without points and waves whose echo lies inside the scanner's near range
// (|timeOffset| < minTimeOffset). Always returns the empty text.
QUILLO_API std::string removeNearRangeWaves(FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform

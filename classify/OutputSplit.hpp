// Output split: which waves of a fragment go to the first and which to the second output,
// by data segment, or by beam side (radial scanners) or alternating scan lines (line-wise).
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "store/FatBoy.hpp"

namespace FullWaveform {

using WaveIndexLists = std::pair<std::vector<std::uint32_t>, std::vector<std::uint32_t>>;

WaveIndexLists splitWaves(FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform

// Wave extraction: peak detection of the fragment's waveforms and online evaluation of its
// echo records, merged into one wave list ordered by wave time.
#pragma once

#include <string>
#include <vector>

#include "run/Export.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

using WaveList = std::vector<Vorlap::StrongPtr<WavePoints<unsigned short>>>;

// Fills wavePoints and fwfIndex; returns the peak detector's error text, else empty.
QUILLO_API std::string iniWavePoints(FatBoy<unsigned short>& fatBoy);

// Merges online waves `online` and waveform waves `fromWaveforms` by wave time (waveform
// waves first among equal times), dropping empty entries and saturated high-gain waves. The
// lists are taken: their waves move into the store without touching their reference counts.
void mergeWavePoints(FatBoy<unsigned short>& fatBoy, WaveList online, WaveList fromWaveforms);

}  // namespace FullWaveform

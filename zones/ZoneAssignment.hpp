// Zone assignment: a fixed zone for every wave, or the repair of uncertain zones from the
// travel-time distribution of the certain waves.
#pragma once

#include <string>
#include <vector>

#include "run/Export.hpp"
#include "store/FatBoy.hpp"

namespace FullWaveform {

// Gives every wave the run's fixed zone (or -1 where it cannot hold). Returns "".
QUILLO_API std::string setFixedMTA(FatBoy<unsigned short>& fatBoy);

// The value at sorted position p * count among the values that are neither NO_LENGTH nor
// NaN (p 0 and 1 give the extremes); NO_LENGTH when there are none.
double quantile(const double& p, const std::vector<double>& values);

// Re-zones every uncertain wave to the candidate nearest the median travel time of the
// certain waves, within their 10-90 % range widened by 0.2 zone lengths. Returns "".
QUILLO_API std::string repairUncertainMTA(FatBoy<unsigned short>& fatBoy);

}  // namespace FullWaveform

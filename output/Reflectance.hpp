// Reflectance prediction: an echo's amplitude plus a range-dependent correction read from a
// table by linear interpolation.
#pragma once

#include <vector>

#include "run/Export.hpp"

namespace FullWaveform {

// Entries of the built-in correction table; entry i belongs to range i / 7.280826222782827.
inline constexpr int kRangeCorrectionEntries = 1984;
extern const double rangeCorrectionTable[kRangeCorrectionEntries];

// With the built-in table; 0 for ranges of 0 or less.
QUILLO_API double predictReflectance_calibrated(const float& amplitude, const double& range);

// With the caller's table of `step` range per entry; 0 for ranges above 3000 or at most 1,
// and for an empty table. A one-entry table applies its entry at every range.
QUILLO_API double predictReflectance_calibrated_from_attribute(const float& amplitude,
                                                               const double& range,
                                                               const std::vector<float>& table,
                                                               const double& step);

}  // namespace FullWaveform

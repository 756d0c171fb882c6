// Peak-detection modes of the waveform library and their display names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace FullWaveform {

enum FWFModus : std::int32_t {
  FWF_GAUSSIAN_DECOMPOSITION = 0,  // Levenberg-Marquardt fit of a sum of Gaussians
  FWF_FAST_PEAKS = 1,              // threshold, local maxima, sub-sample refinement, FWHM
  FWF_PEAKS_NO_WIDTH = 2           // like the fast mode, echoes carry no pulse width
};

// Display name of a mode ("Undefined" for values outside the enumeration).
std::string getNameOfModus(FWFModus mode);
// The mode whose display name or short name (gaussian, fast, nowidth) is `name`.
bool modusFromName(const std::string& name, FWFModus& mode);
std::vector<FWFModus> allModes();

}  // namespace FullWaveform

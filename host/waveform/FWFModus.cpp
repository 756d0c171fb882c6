// Display names of the peak-detection modes and of the echo point types.
#include <algorithm>
#include <cctype>

#include "waveform/FWFModus.hpp"
#include "waveform/WavePoints.hpp"

namespace FullWaveform {

namespace {

struct ModeName {
  FWFModus mode;
  const char* name;
  const char* shortName;
};
constexpr ModeName kModes[] = {
    {FWF_GAUSSIAN_DECOMPOSITION, "GaussianDecomposition", "gaussian"},
    {FWF_FAST_PEAKS, "FastPeaks", "fast"},
    {FWF_PEAKS_NO_WIDTH, "PeaksWithoutWidth", "nowidth"},
};

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

}  // namespace

std::string getNameOfModus(FWFModus mode) {
  for (const auto& m : kModes)
    if (m.mode == mode) return m.name;
  return "Undefined";
}

bool modusFromName(const std::string& name, FWFModus& mode) {
  const std::string wanted = lower(name);
  for (const auto& m : kModes) {
    if (wanted == lower(m.name) || wanted == m.shortName) {
      mode = m.mode;
      return true;
    }
  }
  return false;
}

std::vector<FWFModus> allModes() {
  std::vector<FWFModus> modes;
  for (const auto& m : kModes) modes.push_back(m.mode);
  return modes;
}

std::string convertType(TYPE type) {
  static const char* const kNames[] = {"Unknown", "Single",    "First",  "Intermediate",
                                       "Last",    "Saturated", "Online", "Overlapping"};
  return type >= 0 && type <= 7 ? kNames[type] : "Undefined";
}

}  // namespace FullWaveform

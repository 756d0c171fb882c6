// Settings of peak detection, from an optional text file of "key = value" lines ('#' starts
// a comment). docs/waveforms.md lists the keys.
#pragma once

#include <filesystem>
#include <string>

namespace FullWaveform {

struct PeakSettings {
  double thresholdSigmas = 4.0;       // estimated-noise threshold, in noise sigmas
  double minimumThreshold = 3.0;      // counts; floor of the estimated threshold
  int maxEchoes = 8;                  // per waveform
  double referencePulseWidth = 3e-9;  // FWHM of the emitted pulse, s
  double minPulseWidth = 1e-9;        // fitted widths are kept within these limits, s
  double maxPulseWidth = 30e-9;
  int fitMaxIterations = 30;
  double saturationLevel = 0.0;  // counts; 0: a flat top of the row's maximum
  double minSeparation = 0.0;    // s; nearer candidates merge (0: half the pulse width)
};

// Reads `path` over the defaults; returns the empty text or what is wrong (file and line).
std::string readPeakSettings(const std::filesystem::path& path, PeakSettings& settings);

}  // namespace FullWaveform

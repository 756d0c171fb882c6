// LAS intensity from echo amplitudes (linear digitiser counts above the background). LAS wants
// the return's magnitude scaled by 65536 / the sensor's dynamic range so that files of one
// sensor compare; the waveform samples are 16-bit, so one count is one unit. A file whose
// amplitudes reach past 65535 counts (fits of saturated pulses can) is scaled down as a whole,
// by 65535 / its largest amplitude, so that no point saturates.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace quillo::cli {

class IntensityScale {
 public:
  // Called for every amplitude of the file before the first conversion.
  void include(float amplitude) {
    if (std::isfinite(amplitude)) largest_ = std::max(largest_, static_cast<double>(amplitude));
  }
  double factor() const { return largest_ > kLargest ? kLargest / largest_ : 1.0; }
  // No amplitude (NaN) or none above the background gives 0.
  std::uint16_t operator()(float amplitude) const {
    if (!(amplitude > 0.0f)) return 0;
    const double scaled = std::round(static_cast<double>(amplitude) * factor());
    return static_cast<std::uint16_t>(std::min(scaled, kLargest));  // only infinity reaches it
  }

 private:
  static constexpr double kLargest = 65535.0;
  double largest_ = 0.0;
};

}  // namespace quillo::cli

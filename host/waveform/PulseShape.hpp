// The pulse shape shared by peak detection and the survey simulator: a Gaussian of given
// full width at half maximum (FWHM).
#pragma once

#include <cmath>

namespace FullWaveform {

inline constexpr double kFwhmPerSigma = 2.3548200450309493;  // 2 sqrt(2 ln 2)

inline double gaussianPulse(double t, double centre, double amplitude, double fwhm) {
  const double sigma = fwhm / kFwhmPerSigma;
  const double u = (t - centre) / sigma;
  return amplitude * std::exp(-0.5 * u * u);
}

}  // namespace FullWaveform

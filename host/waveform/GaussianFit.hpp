// Levenberg-Marquardt fit of a sum of Gaussians over a window of samples (positions and
// widths in samples), with a fixed background. Samples with zero weight (clipped ones) do
// not take part, so a saturated pulse is fitted to its flanks.
#pragma once

#include <vector>

namespace FullWaveform {

struct GaussianComponent {
  double amplitude, centre, sigma;
};

struct FitLimits {
  double minSigma, maxSigma;
  int maxIterations;
};

// Refines `components` in place; returns the weighted sum of squared residuals.
double fitGaussians(const std::vector<double>& y, const std::vector<double>& weight, std::size_t lo,
                    std::size_t hi, double background, std::vector<GaussianComponent>& components,
                    const FitLimits& limits);

}  // namespace FullWaveform

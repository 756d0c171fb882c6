// Levenberg-Marquardt fit of a sum of Gaussians over a window of samples (positions and
// widths in samples), with a fixed background. Samples with zero weight (clipped ones) do
// not take part, so a saturated pulse is fitted to its flanks.
#pragma once

#include <cstddef>
#include <vector>

namespace FullWaveform {

struct GaussianComponent {
  double amplitude, centre, sigma;
};

struct FitLimits {
  double minSigma, maxSigma;
  int maxIterations;
};

// Buffers a fit reuses from one call to the next (one per thread): the Gaussians' values at
// every sample for the current and the trial parameters, so each is evaluated once per
// iteration, and the normal equations.
struct FitWorkspace {
  // Component-major Gaussians [k * window + sample], then the same for their offsets u.
  std::vector<double> current, trial;
  std::vector<double> jtj, jtr, system, step, jacobianRow;
  std::vector<GaussianComponent> trialComponents;
};

// Refines `components` in place; returns the weighted sum of squared residuals.
double fitGaussians(const std::vector<double>& y, const std::vector<double>& weight, std::size_t lo,
                    std::size_t hi, double background, std::vector<GaussianComponent>& components,
                    const FitLimits& limits, FitWorkspace& workspace);

}  // namespace FullWaveform

// The Gaussian fit against a plain Levenberg-Marquardt written out directly (every Gaussian
// evaluated where it is needed with libm's exp, the whole normal matrix summed), for one to
// six components, unit weights with clipped samples and other weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "waveform/GaussianFit.hpp"

namespace FullWaveform {
namespace {

using Components = std::vector<GaussianComponent>;

struct Problem {
  std::vector<double> y, w;
  std::size_t lo, hi;
  double background;
  Components start;
};

double gauss(double t, const GaussianComponent& g) {
  const double u = (t - g.centre) / g.sigma;
  return std::exp(-0.5 * u * u);
}

double directCost(const Problem& p, const Components& c) {
  double sum = 0.0;
  for (std::size_t i = p.lo; i < p.hi; ++i) {
    double model = p.background;
    for (const auto& g : c) model += g.amplitude * gauss(double(i), g);
    const double r = p.y[i] - model;
    sum += p.w[i] * r * r;
  }
  return sum;
}

bool directSolve(std::vector<double> a, std::vector<double>& b, std::size_t n) {
  for (std::size_t col = 0; col < n; ++col) {
    std::size_t pivot = col;
    for (std::size_t r = col + 1; r < n; ++r)
      if (std::fabs(a[r * n + col]) > std::fabs(a[pivot * n + col])) pivot = r;
    if (std::fabs(a[pivot * n + col]) < 1e-300) return false;
    for (std::size_t k = 0; k < n && pivot != col; ++k) std::swap(a[col * n + k], a[pivot * n + k]);
    std::swap(b[col], b[pivot]);
    for (std::size_t r = col + 1; r < n; ++r) {
      const double f = a[r * n + col] / a[col * n + col];
      for (std::size_t k = col; k < n; ++k) a[r * n + k] -= f * a[col * n + k];
      b[r] -= f * b[col];
    }
  }
  for (std::size_t i = n; i-- > 0;) {
    double s = b[i];
    for (std::size_t k = i + 1; k < n; ++k) s -= a[i * n + k] * b[k];
    b[i] = s / a[i * n + i];
  }
  return true;
}

// One step of the direct fit: false when it did not lower the cost.
bool directStep(const Problem& p, Components& c, double& cost, double lambda,
                const FitLimits& limits) {
  const std::size_t n = 3 * c.size();
  std::vector<double> jtj(n * n, 0.0), jtr(n, 0.0), j(n);
  for (std::size_t i = p.lo; i < p.hi; ++i) {
    if (p.w[i] == 0.0) continue;
    double model = p.background;
    for (std::size_t k = 0; k < c.size(); ++k) {
      const double u = (double(i) - c[k].centre) / c[k].sigma, e = gauss(double(i), c[k]);
      j[3 * k] = e;
      j[3 * k + 1] = c[k].amplitude * e * u / c[k].sigma;
      j[3 * k + 2] = c[k].amplitude * e * u * u / c[k].sigma;
      model += c[k].amplitude * e;
    }
    for (std::size_t a = 0; a < n; ++a) {
      jtr[a] += p.w[i] * j[a] * (p.y[i] - model);
      for (std::size_t b = 0; b < n; ++b) jtj[a * n + b] += p.w[i] * j[a] * j[b];
    }
  }
  for (std::size_t d = 0; d < n; ++d) jtj[d * n + d] *= 1.0 + lambda;
  if (!directSolve(jtj, jtr, n)) return false;
  Components trial = c;
  for (std::size_t k = 0; k < c.size(); ++k) {
    trial[k].amplitude = std::max(c[k].amplitude + jtr[3 * k], 1e-3);
    trial[k].centre = std::clamp(c[k].centre + jtr[3 * k + 1], double(p.lo), double(p.hi - 1));
    trial[k].sigma = std::clamp(c[k].sigma + jtr[3 * k + 2], limits.minSigma, limits.maxSigma);
  }
  const double trialCost = directCost(p, trial);
  if (!(trialCost < cost)) return false;
  c = trial, cost = trialCost;
  return true;
}

double directFit(const Problem& p, Components& c, const FitLimits& limits) {
  double cost = directCost(p, c), lambda = 1e-3;
  for (int it = 0; it < limits.maxIterations && !c.empty(); ++it) {
    bool improved = false;
    for (int attempt = 0; attempt < 8 && !improved; ++attempt) {
      const double before = cost;
      if (!(improved = directStep(p, c, cost, lambda, limits))) {
        lambda *= 10;
        continue;
      }
      lambda = std::max(lambda * 0.3, 1e-9);
      if (before - cost < 1e-9 * cost) return cost;
    }
    if (!improved) break;
  }
  return cost;
}

// Echoes on a noisy background, the tops clipped at `clip`; the fit starts off their truth.
Problem makeProblem(std::mt19937& rng, std::size_t echoes, bool unitWeights) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  Problem p{std::vector<double>(120), std::vector<double>(120, 1.0), 10, 110, 12.0, {}};
  Components truth;
  for (std::size_t k = 0; k < echoes; ++k)
    truth.push_back(
        {40 + 200 * unit(rng), 25 + 70 * (k + unit(rng)) / double(echoes), 1.0 + 2.5 * unit(rng)});
  const double clip = 180.0;
  for (std::size_t i = 0; i < p.y.size(); ++i) {
    double v = p.background + 4 * (unit(rng) - 0.5);
    for (const auto& g : truth) v += g.amplitude * gauss(double(i), g);
    p.y[i] = std::min(std::round(v), clip);
    if (p.y[i] >= clip)
      p.w[i] = 0.0;
    else if (!unitWeights)
      p.w[i] = 0.25 + unit(rng);
  }
  for (const auto& g : truth)
    p.start.push_back({0.8 * g.amplitude, g.centre + 2 * (unit(rng) - 0.5), 0.7 * g.sigma + 0.4});
  return p;
}

// The fit rounds differently from the direct one (its own exp, the one-component sums), so
// the two differ in the last digits (about 1e-11 here). A wrong Jacobian or a fit stopping
// an iteration early ends farther off the minimum: the tolerances lie between the two.
TEST(GaussianFitTest, MatchesTheDirectFit) {
  std::mt19937 rng(7);
  const FitLimits limits{0.5, 6.0, 30};
  FitWorkspace ws;  // shared, as peak detection shares it between rows
  for (bool unitWeights : {true, false})
    for (std::size_t echoes = 1; echoes <= 6; ++echoes)
      for (int trial = 0; trial < 20; ++trial) {
        const Problem p = makeProblem(rng, echoes, unitWeights);
        Components fitted = p.start, direct = p.start;
        const double cost = fitGaussians(p.y, p.w, p.lo, p.hi, p.background, fitted, limits, ws);
        const double expected = directFit(p, direct, limits);
        SCOPED_TRACE(testing::Message() << echoes << " echoes, trial " << trial
                                        << (unitWeights ? ", unit weights" : ", weighted"));
        ASSERT_NEAR(cost, directCost(p, fitted), 1e-12 * cost) << "the returned cost is the fit's";
        ASSERT_NEAR(cost, expected, 1e-10 * expected);
        for (std::size_t k = 0; k < echoes; ++k) {
          EXPECT_NEAR(fitted[k].centre, direct[k].centre, 1e-8);
          EXPECT_NEAR(fitted[k].sigma, direct[k].sigma, 1e-8);
          EXPECT_NEAR(fitted[k].amplitude, direct[k].amplitude, 1e-8 * direct[k].amplitude);
        }
      }
}

}  // namespace
}  // namespace FullWaveform

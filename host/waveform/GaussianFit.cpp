#include "waveform/GaussianFit.hpp"

#include <algorithm>
#include <cmath>

namespace FullWaveform {

namespace {

double modelAt(double t, double background, const std::vector<GaussianComponent>& c) {
  double v = background;
  for (const auto& g : c) {
    const double u = (t - g.centre) / g.sigma;
    v += g.amplitude * std::exp(-0.5 * u * u);
  }
  return v;
}

double residualSum(const std::vector<double>& y, const std::vector<double>& w, std::size_t lo,
                   std::size_t hi, double background, const std::vector<GaussianComponent>& c) {
  double sum = 0.0;
  for (std::size_t i = lo; i < hi; ++i) {
    const double r = y[i] - modelAt(double(i), background, c);
    sum += w[i] * r * r;
  }
  return sum;
}

// Solves A x = b (n x n, row-major) by Gaussian elimination with partial pivoting.
bool solve(std::vector<double>& a, std::vector<double>& b, std::size_t n) {
  for (std::size_t col = 0; col < n; ++col) {
    std::size_t pivot = col;
    for (std::size_t r = col + 1; r < n; ++r)
      if (std::fabs(a[r * n + col]) > std::fabs(a[pivot * n + col])) pivot = r;
    if (std::fabs(a[pivot * n + col]) < 1e-300) return false;
    if (pivot != col) {
      for (std::size_t k = 0; k < n; ++k) std::swap(a[col * n + k], a[pivot * n + k]);
      std::swap(b[col], b[pivot]);
    }
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

// Normal equations J^T W J and J^T W r of the current parameters.
void normalEquations(const std::vector<double>& y, const std::vector<double>& w, std::size_t lo,
                     std::size_t hi, double background, const std::vector<GaussianComponent>& c,
                     std::vector<double>& jtj, std::vector<double>& jtr) {
  const std::size_t n = 3 * c.size();
  jtj.assign(n * n, 0.0);
  jtr.assign(n, 0.0);
  std::vector<double> j(n);
  for (std::size_t i = lo; i < hi; ++i) {
    if (w[i] == 0.0) continue;
    const double t = double(i);
    for (std::size_t k = 0; k < c.size(); ++k) {
      const double u = (t - c[k].centre) / c[k].sigma, e = std::exp(-0.5 * u * u);
      j[3 * k] = e;
      j[3 * k + 1] = c[k].amplitude * e * u / c[k].sigma;
      j[3 * k + 2] = c[k].amplitude * e * u * u / c[k].sigma;
    }
    const double r = y[i] - modelAt(t, background, c);
    for (std::size_t a = 0; a < n; ++a) {
      jtr[a] += w[i] * j[a] * r;
      for (std::size_t b = 0; b < n; ++b) jtj[a * n + b] += w[i] * j[a] * j[b];
    }
  }
}

void applyStep(std::vector<GaussianComponent>& c, const std::vector<double>& step, std::size_t lo,
               std::size_t hi, const FitLimits& limits) {
  for (std::size_t k = 0; k < c.size(); ++k) {
    c[k].amplitude = std::max(c[k].amplitude + step[3 * k], 1e-3);
    c[k].centre = std::clamp(c[k].centre + step[3 * k + 1], double(lo), double(hi - 1));
    c[k].sigma = std::clamp(c[k].sigma + step[3 * k + 2], limits.minSigma, limits.maxSigma);
  }
}

}  // namespace

double fitGaussians(const std::vector<double>& y, const std::vector<double>& w, std::size_t lo,
                    std::size_t hi, double background, std::vector<GaussianComponent>& c,
                    const FitLimits& limits) {
  double cost = residualSum(y, w, lo, hi, background, c);
  double lambda = 1e-3;
  std::vector<double> jtj, jtr;
  const std::size_t n = 3 * c.size();
  for (int it = 0; it < limits.maxIterations && n > 0; ++it) {
    normalEquations(y, w, lo, hi, background, c, jtj, jtr);
    bool improved = false;
    for (int attempt = 0; attempt < 8 && !improved; ++attempt) {
      std::vector<double> a = jtj, step = jtr;
      for (std::size_t d = 0; d < n; ++d) a[d * n + d] *= 1.0 + lambda;
      if (!solve(a, step, n)) {
        lambda *= 10;
        continue;
      }
      std::vector<GaussianComponent> trial = c;
      applyStep(trial, step, lo, hi, limits);
      const double trialCost = residualSum(y, w, lo, hi, background, trial);
      if (trialCost < cost) {
        improved = true;
        const double gain = cost - trialCost;
        c = trial, cost = trialCost, lambda = std::max(lambda * 0.3, 1e-9);
        if (gain < 1e-9 * cost) return cost;
      } else {
        lambda *= 10;
      }
    }
    if (!improved) break;
  }
  return cost;
}

}  // namespace FullWaveform

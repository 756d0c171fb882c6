// The fit evaluates each Gaussian once per sample and trial: the values of the accepted trial
// serve the next iteration's Jacobian and residuals. The arithmetic (order of sums and
// products) is that of a direct evaluation, so results do not depend on the caching.
#include "waveform/GaussianFit.hpp"

#include <algorithm>
#include <cmath>

namespace FullWaveform {

namespace {

struct Window {
  const std::vector<double>& y;
  const std::vector<double>& w;
  std::size_t lo, hi;
  double background;
  std::size_t size() const { return hi - lo; }
};

// Fills `values` with every component's Gaussian at every sample of the window and returns
// the weighted sum of squared residuals.
double evaluate(const Window& win, const std::vector<GaussianComponent>& c,
                std::vector<double>& values) {
  const std::size_t len = win.size();
  values.resize(c.size() * len);
  for (std::size_t k = 0; k < c.size(); ++k) {
    double* out = values.data() + k * len;
    for (std::size_t i = 0; i < len; ++i) {
      const double u = (double(win.lo + i) - c[k].centre) / c[k].sigma;
      out[i] = std::exp(-0.5 * u * u);
    }
  }
  double sum = 0.0;
  for (std::size_t i = 0; i < len; ++i) {
    double model = win.background;
    for (std::size_t k = 0; k < c.size(); ++k) model += c[k].amplitude * values[k * len + i];
    const double r = win.y[win.lo + i] - model;
    sum += win.w[win.lo + i] * r * r;
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

// Normal equations J^T W J and J^T W r of the current parameters, from the Gaussians'
// values at those parameters (analytic Jacobian: no further exponentials).
void normalEquations(const Window& win, const std::vector<GaussianComponent>& c, FitWorkspace& ws) {
  const std::size_t n = 3 * c.size(), len = win.size();
  ws.jtj.assign(n * n, 0.0);
  ws.jtr.assign(n, 0.0);
  ws.jacobianRow.resize(n);
  double* j = ws.jacobianRow.data();
  for (std::size_t i = 0; i < len; ++i) {
    const double wi = win.w[win.lo + i];
    if (wi == 0.0) continue;
    const double t = double(win.lo + i);
    double model = win.background;
    for (std::size_t k = 0; k < c.size(); ++k) {
      const double u = (t - c[k].centre) / c[k].sigma, e = ws.current[k * len + i];
      j[3 * k] = e;
      j[3 * k + 1] = c[k].amplitude * e * u / c[k].sigma;
      j[3 * k + 2] = c[k].amplitude * e * u * u / c[k].sigma;
      model += c[k].amplitude * e;
    }
    const double r = win.y[win.lo + i] - model;
    for (std::size_t a = 0; a < n; ++a) {
      ws.jtr[a] += wi * j[a] * r;
      for (std::size_t b = 0; b < n; ++b) ws.jtj[a * n + b] += wi * j[a] * j[b];
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

// One damped step from the current parameters; true with `c`, `cost` and the cached values
// moved to the trial when it lowered the cost.
bool tryStep(const Window& win, std::vector<GaussianComponent>& c, double& cost, double lambda,
             const FitLimits& limits, FitWorkspace& ws) {
  const std::size_t n = 3 * c.size();
  ws.system = ws.jtj;
  ws.step = ws.jtr;
  for (std::size_t d = 0; d < n; ++d) ws.system[d * n + d] *= 1.0 + lambda;
  if (!solve(ws.system, ws.step, n)) return false;
  ws.trialComponents = c;
  applyStep(ws.trialComponents, ws.step, win.lo, win.hi, limits);
  const double trialCost = evaluate(win, ws.trialComponents, ws.trial);
  if (!(trialCost < cost)) return false;
  c.swap(ws.trialComponents);
  ws.current.swap(ws.trial);
  cost = trialCost;
  return true;
}

}  // namespace

double fitGaussians(const std::vector<double>& y, const std::vector<double>& w, std::size_t lo,
                    std::size_t hi, double background, std::vector<GaussianComponent>& c,
                    const FitLimits& limits, FitWorkspace& ws) {
  const Window win{y, w, lo, hi, background};
  double cost = evaluate(win, c, ws.current);
  double lambda = 1e-3;
  const std::size_t n = 3 * c.size();
  for (int it = 0; it < limits.maxIterations && n > 0; ++it) {
    normalEquations(win, c, ws);
    bool improved = false;
    for (int attempt = 0; attempt < 8 && !improved; ++attempt) {
      const double before = cost;
      improved = tryStep(win, c, cost, lambda, limits, ws);
      if (!improved) {
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

}  // namespace FullWaveform

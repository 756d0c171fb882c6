// The fit evaluates each Gaussian once per sample and trial: the values of the accepted trial
// serve the next iteration's Jacobian and residuals. The arithmetic (order of sums and
// products) is that of a direct evaluation, so results do not depend on the caching, on the
// component count being known at compile time, or on the normal matrix's symmetry being used.
#include "waveform/GaussianFit.hpp"

#include <algorithm>
#include <cmath>

#include "waveform/FastExp.hpp"

namespace FullWaveform {

namespace {

struct Window {
  const std::vector<double>& y;
  const std::vector<double>& w;
  std::size_t lo, hi;
  double background;
  std::size_t size() const { return hi - lo; }
};

// Count<K>::of(c) is the number of components: K when the fit is compiled for K of them,
// which unrolls the per-sample loops, and c.size() for K == 0.
template <std::size_t K>
struct Count {
  static constexpr std::size_t of(const std::vector<GaussianComponent>&) { return K; }
};
template <>
struct Count<0> {
  static std::size_t of(const std::vector<GaussianComponent>& c) { return c.size(); }
};

// Fills `values` with every component's Gaussian at every sample of the window, followed by
// the samples' standardised offsets u (which the Jacobian needs again: one division less per
// sample there), and returns the weighted sum of squared residuals.
template <std::size_t K>
double evaluate(const Window& win, const std::vector<GaussianComponent>& c,
                std::vector<double>& values) {
  const std::size_t len = win.size(), count = Count<K>::of(c);
  values.resize(2 * count * len);
  for (std::size_t k = 0; k < count; ++k) {
    double* out = values.data() + k * len;
    double* offsets = values.data() + (count + k) * len;
    // An int counter: its conversion to double vectorises, a size_t's does not. lo + i is
    // exact in either form.
    const double first = double(win.lo), centre = c[k].centre, sigma = c[k].sigma;
    for (int i = 0; i < int(len); ++i) {
      const double u = (first + double(i) - centre) / sigma;
      offsets[i] = u;
      out[i] = expNonPositive(-0.5 * u * u);
    }
  }
  double sum = 0.0;
  for (std::size_t i = 0; i < len; ++i) {
    double model = win.background;
    for (std::size_t k = 0; k < count; ++k) model += c[k].amplitude * values[k * len + i];
    const double r = win.y[win.lo + i] - model;
    sum += win.w[win.lo + i] * r * r;
  }
  return sum;
}

// Solves A x = b (n x n, row-major) by Gaussian elimination with partial pivoting; N is n
// when known at compile time, else 0.
template <std::size_t N>
bool solve(double* a, double* b, std::size_t size) {
  const std::size_t n = N ? N : size;
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

// True when every weight of the window is 0 or 1, as peak detection gives them (clipped
// samples 0). A sample's term w j_a j_b is then the same number for (a, b) and (b, a).
bool unitWeights(const Window& win) {
  for (std::size_t i = win.lo; i < win.hi; ++i)
    if (win.w[i] != 0.0 && win.w[i] != 1.0) return false;
  return true;
}

// Sums J^T W J and J^T W r over the window's samples into `jtj` and `jtr` (zeroed by the
// caller), the upper triangle of J^T W J only when `Symmetric`. N is 3 x the components
// when known at compile time, else 0 (then `size`).
template <std::size_t N, bool Symmetric>
void sumSamples(const Window& win, const std::vector<GaussianComponent>& c, const double* values,
                std::size_t size, double* __restrict j, double* __restrict jtj,
                double* __restrict jtr) {
  const std::size_t n = N ? N : size, len = win.size();
  for (std::size_t i = 0; i < len; ++i) {
    const double wi = win.w[win.lo + i];
    if (wi == 0.0) continue;
    double model = win.background;
    for (std::size_t k = 0; k < n / 3; ++k) {
      const double u = values[(n / 3 + k) * len + i], e = values[k * len + i];
      j[3 * k] = e;
      j[3 * k + 1] = c[k].amplitude * e * u / c[k].sigma;
      j[3 * k + 2] = c[k].amplitude * e * u * u / c[k].sigma;
      model += c[k].amplitude * e;
    }
    const double r = win.y[win.lo + i] - model;
    for (std::size_t a = 0; a < n; ++a) {
      const double wa = wi * j[a];
      jtr[a] += wa * r;
      for (std::size_t b = Symmetric ? a : 0; b < n; ++b) jtj[a * n + b] += wa * j[b];
    }
  }
  if (Symmetric)
    for (std::size_t a = 1; a < n; ++a)
      for (std::size_t b = 0; b < a; ++b) jtj[a * n + b] = jtj[b * n + a];
}

// Normal equations J^T W J and J^T W r of the current parameters, from the Gaussians'
// values at those parameters (analytic Jacobian: no further exponentials). With unit weights
// the lower triangle is copied from the upper one: the same sums for half the work. A fit of
// K components known at compile time sums in local arrays the compiler can keep in registers.
template <std::size_t K>
void normalEquations(const Window& win, const std::vector<GaussianComponent>& c, bool symmetric,
                     FitWorkspace& ws) {
  const std::size_t n = 3 * Count<K>::of(c);
  ws.jtj.assign(n * n, 0.0);
  ws.jtr.assign(n, 0.0);
  if constexpr (K > 0) {
    constexpr std::size_t N = 3 * K;
    double j[N], jtj[N * N] = {}, jtr[N] = {};
    if (symmetric)
      sumSamples<N, true>(win, c, ws.current.data(), N, j, jtj, jtr);
    else
      sumSamples<N, false>(win, c, ws.current.data(), N, j, jtj, jtr);
    std::copy(jtj, jtj + N * N, ws.jtj.begin());
    std::copy(jtr, jtr + N, ws.jtr.begin());
  } else {
    ws.jacobianRow.resize(n);
    double *j = ws.jacobianRow.data(), *jtj = ws.jtj.data(), *jtr = ws.jtr.data();
    if (symmetric)
      sumSamples<0, true>(win, c, ws.current.data(), n, j, jtj, jtr);
    else
      sumSamples<0, false>(win, c, ws.current.data(), n, j, jtj, jtr);
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
template <std::size_t K>
bool tryStep(const Window& win, std::vector<GaussianComponent>& c, double& cost, double lambda,
             const FitLimits& limits, FitWorkspace& ws) {
  const std::size_t n = 3 * Count<K>::of(c);
  ws.system = ws.jtj;
  ws.step = ws.jtr;
  for (std::size_t d = 0; d < n; ++d) ws.system[d * n + d] *= 1.0 + lambda;
  if (!solve<3 * K>(ws.system.data(), ws.step.data(), n)) return false;
  ws.trialComponents = c;
  applyStep(ws.trialComponents, ws.step, win.lo, win.hi, limits);
  const double trialCost = evaluate<K>(win, ws.trialComponents, ws.trial);
  if (!(trialCost < cost)) return false;
  c.swap(ws.trialComponents);
  ws.current.swap(ws.trial);
  cost = trialCost;
  return true;
}

template <std::size_t K>
double fit(const Window& win, std::vector<GaussianComponent>& c, const FitLimits& limits,
           FitWorkspace& ws) {
  double cost = evaluate<K>(win, c, ws.current);
  double lambda = 1e-3;
  const std::size_t n = 3 * Count<K>::of(c);
  const bool symmetric = unitWeights(win);
  for (int it = 0; it < limits.maxIterations && n > 0; ++it) {
    normalEquations<K>(win, c, symmetric, ws);
    bool improved = false;
    for (int attempt = 0; attempt < 8 && !improved; ++attempt) {
      const double before = cost;
      improved = tryStep<K>(win, c, cost, lambda, limits, ws);
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

// One Gaussian, almost every fit: with J = [e, a e u, a e u^2] (a = A / sigma) the normal
// equations are sums of w e^2 u^p and w e u^p r, so one pass over the window gives a trial's
// cost and, should the trial be accepted, the next iteration's normal equations.
struct OneSums {
  double cost, ee[5], er[3];  // sum w r^2; sum w e^2 u^p (p = 0..4); sum w e u^p r (p = 0..2)
};

OneSums sumsOne(const Window& win, const GaussianComponent& g, FitWorkspace& ws) {
  // Vectorises (see evaluate()); an even count leaves no sample to the scalar tail, and
  // one division per pass is cheaper than one per sample.
  const int len = int(win.size()), even = (len + 1) & ~1;
  ws.current.resize(2 * std::size_t(even));
  double* __restrict u = ws.current.data(), * __restrict e = u + even;
  const double first = double(win.lo), inverse = 1.0 / g.sigma;
  for (int i = 0; i < even; ++i) {
    u[i] = (first + double(i) - g.centre) * inverse;
    e[i] = expNonPositive(-0.5 * u[i] * u[i]);
  }
  const double *y = win.y.data() + win.lo, *w = win.w.data() + win.lo;
  OneSums s{};
  for (int i = 0; i < len; ++i) {
    const double r = y[i] - (win.background + g.amplitude * e[i]);
    const double we = w[i] * e[i], wee = we * e[i], wer = we * r;
    s.cost += w[i] * r * r;
    s.ee[0] += wee, s.ee[1] += wee * u[i], s.ee[2] += wee * u[i] * u[i];
    s.ee[3] += wee * u[i] * u[i] * u[i], s.ee[4] += wee * (u[i] * u[i]) * (u[i] * u[i]);
    s.er[0] += wer, s.er[1] += wer * u[i], s.er[2] += wer * u[i] * u[i];
  }
  return s;
}

// The damped step from the sums at `g`; false when the system is singular.
bool stepOne(const OneSums& s, const GaussianComponent& g, double lambda, double step[3]) {
  const double a = g.amplitude / g.sigma, aa = a * a;
  double m[9] = {s.ee[0],      a * s.ee[1], a * s.ee[2],  a * s.ee[1], aa * s.ee[2],
                 aa * s.ee[3], a * s.ee[2], aa * s.ee[3], aa * s.ee[4]};
  for (int d = 0; d < 3; ++d) m[4 * d] *= 1.0 + lambda;
  step[0] = s.er[0], step[1] = a * s.er[1], step[2] = a * s.er[2];
  return solve<3>(m, step, 3);
}

double fitOne(const Window& win, GaussianComponent& g, const FitLimits& limits, FitWorkspace& ws) {
  OneSums now = sumsOne(win, g, ws);
  double lambda = 1e-3;
  for (int it = 0; it < limits.maxIterations; ++it) {
    bool improved = false;
    for (int attempt = 0; attempt < 8 && !improved; ++attempt) {
      double step[3];
      GaussianComponent trial = g;
      if (stepOne(now, g, lambda, step)) {
        trial.amplitude = std::max(g.amplitude + step[0], 1e-3);
        trial.centre = std::clamp(g.centre + step[1], double(win.lo), double(win.hi - 1));
        trial.sigma = std::clamp(g.sigma + step[2], limits.minSigma, limits.maxSigma);
        const OneSums next = sumsOne(win, trial, ws);
        improved = next.cost < now.cost;
        if (improved) {
          const double before = now.cost;
          g = trial, now = next;
          lambda = std::max(lambda * 0.3, 1e-9);
          if (before - now.cost < 1e-9 * now.cost) return now.cost;
        }
      }
      if (!improved) lambda *= 10;
    }
    if (!improved) break;
  }
  return now.cost;
}

}  // namespace

double fitGaussians(const std::vector<double>& y, const std::vector<double>& w, std::size_t lo,
                    std::size_t hi, double background, std::vector<GaussianComponent>& c,
                    const FitLimits& limits, FitWorkspace& ws) {
  const Window win{y, w, lo, hi, background};
  switch (c.size()) {
    case 1:
      return fitOne(win, c[0], limits, ws);
    case 2:
      return fit<2>(win, c, limits, ws);
    case 3:
      return fit<3>(win, c, limits, ws);
    case 4:
      return fit<4>(win, c, limits, ws);
    default:
      return fit<0>(win, c, limits, ws);
  }
}

}  // namespace FullWaveform

// Peak detection: one wave per waveform row. Background and noise are estimated per row
// (RowStatistics: the median, and the spread of the samples near it); candidates are local maxima
// of the lightly smoothed row above the threshold. The fast modes refine each candidate from its
// three highest samples and take the width from the half-maximum crossings; the decomposition mode
// fits a sum of Gaussians to each cluster of candidates (adding a component where the residual
// still shows an echo), which separates overlapping echoes. Clipped samples take no part in fits,
// and a clipped echo's position is the centre of its flat top otherwise.
#include "waveform/PeakDetection.hpp"

#include <algorithm>
#include <cmath>

#include "waveform/FastExp.hpp"
#include "waveform/GaussianFit.hpp"
#include "waveform/PeakSettings.hpp"
#include "waveform/PulseShape.hpp"
#include "waveform/RowKernels.hpp"
#include "waveform/RowScan.hpp"
#include "waveform/RowStatistics.hpp"

namespace FullWaveform {

namespace {

struct Candidate {
  double position, height, sigma;  // samples, counts above background, samples
  bool saturated = false, overlapping = false;
};

const CountLogs& countLogs() {
  static const CountLogs logs;
  return logs;
}

}  // namespace

template <class T>
struct PeakDetectionFamily<T>::Impl {
  FWFModus mode;
  PeakSettings settings;
  double sampleInterval;
  std::uint32_t samplesPerRow;
  RowStatistics rowStatistics;
  std::vector<std::int32_t> y;       // the row's samples
  std::vector<std::int32_t> smooth;  // four times the 1-2-1 smoothed row (exact in integers)
  std::vector<std::uint64_t> marks;  // bits where smooth exceeds the candidate limit
  std::vector<double> fitY, weight;  // the row and its fit weights (decomposition only)
  std::vector<double> model;         // the fitted components over a window
  std::vector<Candidate> candidates;
  // Reused from row to row: a row allocates nothing once the first rows have run.
  std::vector<Candidate> decomposed, clusterBuffer;
  std::vector<GaussianComponent> components;
  FitWorkspace fitWorkspace;

  SampleRange loadRow(const Tessal::MemArray<2, T>& samples, std::size_t row, std::size_t n);
  void findCandidates(std::size_t n, const RowStats& s, std::vector<Candidate>& out);
  void refineFast(std::size_t n, const RowStats& s, Candidate& c);
  double halfWidth(std::size_t n, const RowStats& s, double position, double height);
  void decompose(std::size_t n, const RowStats& s, std::vector<Candidate>& cands);
  void fitCluster(std::size_t n, const RowStats& s, std::vector<Candidate>& cluster);
  double largestResidual(std::size_t lo, std::size_t hi, const RowStats& s, std::size_t& at);
  float damping(std::size_t n, const RowStats& s, const std::vector<Candidate>& echoes);
  Vorlap::StrongPtr<WavePoints<T>> detectRow(const Tessal::MemArray<2, T>& samples, std::size_t row,
                                             std::size_t valid, std::int32_t noiseLevel,
                                             WavePool<T>* pool);
};

// Reads row `row` (n >= 1 samples) into y through the array's stride (no accessor call per
// sample when the array has storage) and gives its extremes.
template <class T>
SampleRange PeakDetectionFamily<T>::Impl::loadRow(const Tessal::MemArray<2, T>& samples,
                                                  std::size_t row, std::size_t n) {
  std::int32_t* out = y.data();
  const T* base = samples.stridedData();
  if (base && samples.stride() == 1) return widenRow(base + row * samples.extent(0), n, out);
  if (base) {
    const std::size_t stride = samples.stride();
    const T* p = base + row * samples.extent(0) * stride;
    for (std::size_t i = 0; i < n; ++i) out[i] = p[i * stride];
  } else {
    for (std::size_t i = 0; i < n; ++i) out[i] = samples.get(i, row);
  }
  SampleRange range{out[0], out[0]};
  for (std::size_t i = 1; i < n; ++i) {
    range.lowest = std::min(range.lowest, out[i]);
    range.highest = std::max(range.highest, out[i]);
  }
  return range;
}

template <class T>
void PeakDetectionFamily<T>::Impl::findCandidates(std::size_t n, const RowStats& s,
                                                  std::vector<Candidate>& out) {
  const double refSigma = settings.referencePulseWidth / sampleInterval / kFwhmPerSigma;
  // Most samples lie below the threshold: the smoothing marks those above the integer limit,
  // which holds exactly the smoothed values at or below `threshold4`, and the scan skips to
  // the marks (n >= 3; the smoothing repeats the end samples beyond the row).
  const double threshold4 = 4.0 * (double(s.background) + s.threshold);
  std::int32_t limit = 0;
  const bool integral = integerLimit(threshold4, limit);
  smoothAndMark(y.data(), n, limit, smooth.data(), marks.data());
  for (std::size_t a = 1; a + 1 < n;) {
    if (integral) {
      a = nextMarked(marks.data(), a, n - 1);
      if (a + 1 >= n) break;
    } else if (smooth[a] <= threshold4) {
      ++a;
      continue;
    }
    std::size_t b = a;
    while (b + 1 < n && smooth[b + 1] == smooth[a]) ++b;  // a flat top counts once
    if (smooth[a - 1] < smooth[a] && b + 1 < n && smooth[b + 1] < smooth[b])
      out.push_back({0.5 * double(a + b), 0.25 * smooth[a] - s.background, refSigma});
    a = b + 1;
  }
  const double minSep =
      settings.minSeparation > 0 ? settings.minSeparation / sampleInterval : refSigma;
  for (std::size_t k = 1; k < out.size();) {
    if (out[k].position - out[k - 1].position >= minSep) {
      ++k;
      continue;
    }
    if (out[k].height > out[k - 1].height) out[k - 1] = out[k];
    out.erase(out.begin() + std::ptrdiff_t(k));
  }
  if (out.size() > std::size_t(settings.maxEchoes)) {
    std::sort(out.begin(), out.end(),
              [](const Candidate& a, const Candidate& b) { return a.height > b.height; });
    out.resize(std::size_t(settings.maxEchoes));
    std::sort(out.begin(), out.end(),
              [](const Candidate& a, const Candidate& b) { return a.position < b.position; });
  }
}

template <class T>
double PeakDetectionFamily<T>::Impl::halfWidth(std::size_t n, const RowStats& s, double position,
                                               double height) {
  const double half = double(s.background) + 0.5 * height;
  auto crossing = [&](int direction) {
    std::ptrdiff_t i = std::ptrdiff_t(roundHalfAway(position));
    while (i + direction >= 0 && i + direction < std::ptrdiff_t(n) &&
           y[std::size_t(i + direction)] > half)
      i += direction;
    const std::ptrdiff_t j = i + direction;
    if (j < 0 || j >= std::ptrdiff_t(n)) return double(i);
    const double yi = y[std::size_t(i)], yj = y[std::size_t(j)];
    return double(i) + direction * (yi > yj ? (yi - half) / (yi - yj) : 0.5);
  };
  return crossing(+1) - crossing(-1);
}

template <class T>
void PeakDetectionFamily<T>::Impl::refineFast(std::size_t n, const RowStats& s, Candidate& c) {
  std::size_t i = std::size_t(roundHalfAway(c.position));
  if (s.clipped && y[i] >= s.clipLevel) {
    std::size_t a = i, b = i;
    while (a > 0 && y[a - 1] >= s.clipLevel) --a;
    while (b + 1 < n && y[b + 1] >= s.clipLevel) ++b;
    c.position = 0.5 * double(a + b);
    c.height = s.clipLevel - s.background;
    c.saturated = true;
  } else {
    while (i > 0 && i + 1 < n && (y[i - 1] > y[i] || y[i + 1] > y[i]))
      i += y[i + 1] > y[i] ? 1 : -1;
    if (i == 0 || i + 1 >= n) return;
    const double l = y[i - 1] - s.background, m = y[i] - s.background, r = y[i + 1] - s.background;
    // Vertex of the parabola through the logarithms (exact for a Gaussian); a flat top
    // (three equal samples) has none and keeps the middle sample.
    double delta = 0.0;
    c.height = m;
    if (l > 0 && m > 0 && r > 0) {
      const CountLogs& log = countLogs();
      const double ll = log(l), lm = log(m), lr = log(r);
      const double d = ll - 2 * lm + lr;
      if (d < 0) {
        delta = 0.5 * (ll - lr) / d;
        c.height = std::exp(lm - 0.125 * (ll - lr) * (ll - lr) / d);
      }
    }
    c.position = double(i) + std::clamp(delta, -0.5, 0.5);
  }
  const double width = halfWidth(n, s, c.position, c.height);
  c.sigma = std::max(width / kFwhmPerSigma, 0.3);
}

// The largest residual of the fitted components over [lo, hi) among weighted samples, and
// where (`at`). The model is summed per component over the window, which vectorises.
template <class T>
double PeakDetectionFamily<T>::Impl::largestResidual(std::size_t lo, std::size_t hi,
                                                     const RowStats& s, std::size_t& at) {
  const int len = int(hi - lo);
  double* __restrict m = model.data();
  for (int i = 0; i < len; ++i) m[i] = s.background;
  for (const auto& g : components) {
    const double first = double(lo), centre = g.centre, inverse = 1.0 / g.sigma;
    const double amplitude = g.amplitude;
    for (int i = 0; i < len; ++i) {  // an int counter: its conversion to double vectorises
      const double u = (first + double(i) - centre) * inverse;
      m[i] += amplitude * expNonPositive(-0.5 * u * u);
    }
  }
  double worst = 0.0;
  for (std::size_t i = lo; i < hi; ++i)
    if (weight[i] > 0 && fitY[i] - m[i - lo] > worst) worst = fitY[i] - m[i - lo], at = i;
  return worst;
}

template <class T>
void PeakDetectionFamily<T>::Impl::fitCluster(std::size_t n, const RowStats& s,
                                              std::vector<Candidate>& cluster) {
  const double refSigma = settings.referencePulseWidth / sampleInterval / kFwhmPerSigma;
  const FitLimits limits{settings.minPulseWidth / sampleInterval / kFwhmPerSigma,
                         settings.maxPulseWidth / sampleInterval / kFwhmPerSigma,
                         settings.fitMaxIterations};
  const double margin = 3.0 * std::max(refSigma, cluster.front().sigma);
  const std::size_t lo = std::size_t(std::max(0.0, cluster.front().position - margin));
  const std::size_t hi = std::min(n, std::size_t(cluster.back().position + margin) + 2);
  std::vector<GaussianComponent>& comps = components;
  comps.clear();
  for (const auto& c : cluster)
    comps.push_back({c.height, c.position, std::clamp(c.sigma, limits.minSigma, limits.maxSigma)});
  fitGaussians(fitY, weight, lo, hi, s.background, comps, limits, fitWorkspace);
  // An echo the candidates missed (a shoulder) still shows in the residual.
  if (comps.size() < std::size_t(settings.maxEchoes)) {
    std::size_t at = lo;
    const double worst = largestResidual(lo, hi, s, at);
    if (worst > s.threshold) {
      comps.push_back({worst, double(at), refSigma});
      fitGaussians(fitY, weight, lo, hi, s.background, comps, limits, fitWorkspace);
    }
  }
  const bool saturated =
      std::any_of(cluster.begin(), cluster.end(), [](const Candidate& c) { return c.saturated; });
  cluster.clear();
  for (const auto& g : comps) {
    if (g.amplitude < 0.5 * s.threshold || g.centre < 0 || g.centre > double(n - 1)) continue;
    cluster.push_back(
        {g.centre, g.amplitude, g.sigma, saturated && g.amplitude >= s.clipLevel - s.background});
  }
  if (cluster.size() > 1)
    for (auto& c : cluster) c.overlapping = true;
}

template <class T>
void PeakDetectionFamily<T>::Impl::decompose(std::size_t n, const RowStats& s,
                                             std::vector<Candidate>& cands) {
  for (std::size_t i = 0; i < n; ++i) {
    fitY[i] = double(y[i]);
    weight[i] = s.clipped && fitY[i] >= s.clipLevel ? 0.0 : 1.0;
  }
  std::vector<Candidate>& result = decomposed;
  result.clear();
  std::vector<Candidate>& cluster = clusterBuffer;
  cluster.clear();
  for (std::size_t k = 0; k < cands.size(); ++k) {
    cluster.push_back(cands[k]);
    const bool last = k + 1 == cands.size();
    const double gap = last ? 0.0 : cands[k + 1].position - cands[k].position;
    if (last || gap > 4.0 * (cands[k].sigma + cands[k + 1].sigma)) {
      fitCluster(n, s, cluster);
      result.insert(result.end(), cluster.begin(), cluster.end());
      cluster.clear();
    }
  }
  std::sort(result.begin(), result.end(),
            [](const Candidate& a, const Candidate& b) { return a.position < b.position; });
  if (result.size() > std::size_t(settings.maxEchoes))
    result.resize(std::size_t(settings.maxEchoes));
  cands.swap(result);
}

template <class T>
float PeakDetectionFamily<T>::Impl::damping(std::size_t n, const RowStats& s,
                                            const std::vector<Candidate>& echoes) {
  if (echoes.empty()) return 0.0f;
  const double edge = echoes.front().position + 2.0 * echoes.front().sigma;
  const std::size_t trailing = edge < 0 ? 0 : edge >= double(n) ? n : std::size_t(edge) + 1;
  const ExcessSums sums = excessOverBackground(y.data(), n, s.background, trailing);
  const std::int64_t total = sums.before + sums.after;
  return total > 0 ? float(double(sums.after) / double(total)) : 0.0f;
}

template <class T>
Vorlap::StrongPtr<WavePoints<T>> PeakDetectionFamily<T>::Impl::detectRow(
    const Tessal::MemArray<2, T>& samples, std::size_t row, std::size_t n, std::int32_t noiseLevel,
    WavePool<T>* pool) {
  auto wave = pool ? pool->take() : Vorlap::makeStrong<WavePoints<T>>();
  if (n < 3) return wave;
  const SampleRange range = loadRow(samples, row, n);
  wave->maxSample = T(range.highest);
  const RowStats s =
      rowStatistics.compute(y.data(), n, range.lowest, range.highest, noiseLevel, settings);
  std::vector<Candidate>& cands = candidates;
  cands.clear();
  findCandidates(n, s, cands);
  for (auto& c : cands) refineFast(n, s, c);
  if (mode == FWF_GAUSSIAN_DECOMPOSITION && !cands.empty()) decompose(n, s, cands);
  wave->damping = damping(n, s, cands);
  wave->echoes.reserve(cands.size());
  for (std::size_t k = 0; k < cands.size(); ++k) {
    const auto& c = cands[k];
    EchoPoint e;
    e.amplitude = float(c.height);
    e.samplePosition = c.position;
    e.pulseWidth = mode == FWF_PEAKS_NO_WIDTH ? 0.0 : c.sigma * kFwhmPerSigma * sampleInterval;
    e.classification = Quorvane::DrelmClass::unclassified;
    e.pointType = cands.size() == 1       ? TYPE_SINGLE
                  : k == 0                ? TYPE_FIRST
                  : k + 1 == cands.size() ? TYPE_LAST
                                          : TYPE_INTERMEDIATE;
    if (c.overlapping) e.pointType = TYPE_OVERLAPPING;
    if (c.saturated) e.pointType = TYPE_SATURATED;
    wave->echoes.push_back(e);
    wave->amplitude = std::max(wave->amplitude, e.amplitude);
  }
  return wave;
}

template <class T>
PeakDetectionFamily<T>::PeakDetectionFamily(FWFModus mode, const ScannerDevice& scanner,
                                            const std::filesystem::path& settingsPath,
                                            const std::filesystem::path& inputFile,
                                            std::uint32_t samplesPerWaveform) {
  const std::string where = inputFile.empty() ? "" : " (" + inputFile.string() + ")";
  if (getNameOfModus(mode) == "Undefined") {
    error_ = "PeakDetection: unknown mode " + std::to_string(int(mode)) + where;
    return;
  }
  if (samplesPerWaveform == 0) {
    error_ = "PeakDetection: the waveforms hold no samples" + where;
    return;
  }
  if (!(scanner.sampleInterval > 0.0)) {
    error_ = "PeakDetection: the scanner description has no sample interval" + where;
    return;
  }
  PeakSettings settings;
  if (!settingsPath.empty()) {
    error_ = readPeakSettings(settingsPath, settings);
    if (!error_.empty()) return;
  }
  impl_ = new Impl{mode,
                   settings,
                   scanner.sampleInterval,
                   samplesPerWaveform,
                   RowStatistics(samplesPerWaveform),
                   {},
                   {},
                   {},
                   {},
                   {},
                   {},
                   {},
                   {},
                   {},
                   {},
                   {}};
  impl_->y.resize(samplesPerWaveform);
  impl_->smooth.resize(samplesPerWaveform);
  impl_->marks.resize(markWords(samplesPerWaveform));
  impl_->fitY.resize(samplesPerWaveform);
  impl_->weight.resize(samplesPerWaveform);
  impl_->model.resize(samplesPerWaveform);
}

template <class T>
PeakDetectionFamily<T>::~PeakDetectionFamily() {
  delete impl_;
}

template <class T>
typename PeakDetectionFamily<T>::WaveList PeakDetectionFamily<T>::apply(
    const Vorlap::StrongPtr<Tessal::MemArray<2, T>>& samples,
    const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint16_t>>& fwfLength,
    const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& gpsTime,
    const Vorlap::StrongPtr<Tessal::MemArray<1, double>>& sblTime,
    const Vorlap::StrongPtr<Tessal::MemArray<1, std::uint8_t>>& channel, std::int32_t noiseLevel,
    const std::string&, WavePool<T>* pool) {
  WaveList waves;
  if (!impl_ || !samples || !fwfLength || !gpsTime || !sblTime || !channel) return waves;
  const std::size_t perRow = std::min<std::size_t>(samples->extent(0), impl_->samplesPerRow);
  const std::size_t rows = std::min(
      {samples->extent(1), fwfLength->size(), gpsTime->size(), sblTime->size(), channel->size()});
  waves.reserve(rows);
  for (std::size_t r = 0; r < rows; ++r) {
    const std::size_t valid = std::min<std::size_t>(fwfLength->get(r), perRow);
    auto wave = impl_->detectRow(*samples, r, valid, noiseLevel, pool);
    wave->waveTime = gpsTime->get(r);
    wave->channel = channel->get(r);
    const double sbl = sblTime->get(r);
    for (auto& e : wave->echoes) e.time = sbl + e.samplePosition * impl_->sampleInterval;
    wave->timeOffset = wave->echoes.empty() ? 0.0 : wave->echoes.front().time;
    waves.push_back(std::move(wave));
  }
  return waves;
}

template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform

// Peak detection: one wave per waveform row. Background and noise are estimated per row
// (median and median absolute deviation); candidates are local maxima of the lightly
// smoothed row above the threshold. The fast modes refine each candidate from its three
// highest samples and take the width from the half-maximum crossings; the decomposition
// mode fits a sum of Gaussians to each cluster of candidates (adding a component where the
// residual still shows an echo), which separates overlapping echoes. Clipped samples take
// no part in fits, and a clipped echo's position is the centre of its flat top otherwise.
#include "waveform/PeakDetection.hpp"

#include <algorithm>
#include <cmath>

#include "waveform/GaussianFit.hpp"
#include "waveform/PeakSettings.hpp"
#include "waveform/PulseShape.hpp"

namespace FullWaveform {

namespace {

struct Candidate {
  double position, height, sigma;  // samples, counts above background, samples
  bool saturated = false, overlapping = false;
};

struct RowStats {
  double background = 0.0, noiseSigma = 0.0, threshold = 0.0, clipLevel = 0.0;
  bool clipped = false;
};

// Median of the first n raw samples (integers select faster than doubles).
template <class T>
double medianOf(std::vector<T>& scratch, std::size_t n) {
  const auto mid = scratch.begin() + std::ptrdiff_t(n / 2);
  std::nth_element(scratch.begin(), mid, scratch.begin() + std::ptrdiff_t(n));
  return double(*mid);
}

}  // namespace

template <class T>
struct PeakDetectionFamily<T>::Impl {
  FWFModus mode;
  PeakSettings settings;
  double sampleInterval;
  std::uint32_t samplesPerRow;
  std::vector<double> y, smooth, weight;
  std::vector<T> scratch;  // the row's raw samples, reordered by the median search
  std::vector<Candidate> candidates;

  RowStats stats(std::size_t n, std::int32_t noiseLevel, T maxSample);
  double noiseSigmaAround(double background, std::size_t n) const;
  bool adjacentAtMax(std::size_t n, T maxSample) const;
  void findCandidates(std::size_t n, const RowStats& s, std::vector<Candidate>& out);
  void refineFast(std::size_t n, const RowStats& s, Candidate& c);
  double halfWidth(std::size_t n, const RowStats& s, double position, double height);
  void decompose(std::size_t n, const RowStats& s, std::vector<Candidate>& cands);
  void fitCluster(std::size_t n, const RowStats& s, std::vector<Candidate>& cluster);
  float damping(std::size_t n, const RowStats& s, const std::vector<Candidate>& echoes);
  Vorlap::StrongPtr<WavePoints<T>> detectRow(const Tessal::MemArray<2, T>& samples, std::size_t row,
                                             std::size_t valid, std::int32_t noiseLevel);
};

template <class T>
RowStats PeakDetectionFamily<T>::Impl::stats(std::size_t n, std::int32_t noiseLevel, T maxSample) {
  RowStats s;
  s.background = medianOf(scratch, n);
  s.noiseSigma = noiseSigmaAround(s.background, n);
  s.threshold = noiseLevel > 0
                    ? double(noiseLevel)
                    : std::max(settings.thresholdSigmas * s.noiseSigma, settings.minimumThreshold);
  std::size_t atMax = 0;
  for (std::size_t i = 0; i < n; ++i) atMax += y[i] == double(maxSample);
  s.clipLevel = settings.saturationLevel > 0 ? settings.saturationLevel : double(maxSample);
  s.clipped =
      settings.saturationLevel > 0
          ? double(maxSample) >= settings.saturationLevel
          : atMax >= 2 && maxSample - s.background > 4 * s.threshold && adjacentAtMax(n, maxSample);
  for (std::size_t i = 0; i < n; ++i) weight[i] = s.clipped && y[i] >= s.clipLevel ? 0.0 : 1.0;
  return s;
}

// A clipped pulse shows as neighbouring samples at the row's maximum (noise may repeat the
// maximum too, but rarely side by side and far above the threshold).
template <class T>
bool PeakDetectionFamily<T>::Impl::adjacentAtMax(std::size_t n, T maxSample) const {
  for (std::size_t i = 0; i + 1 < n; ++i)
    if (y[i] == double(maxSample) && y[i + 1] == double(maxSample)) return true;
  return false;
}

// Standard deviation of the samples near the background, the echoes excluded by clipping
// twice at 3.5 sigmas (robust, and unlike a median of integer deviations not stepwise).
template <class T>
double PeakDetectionFamily<T>::Impl::noiseSigmaAround(double background, std::size_t n) const {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += std::fabs(y[i] - background);
  double sigma = 1.2533 * sum / double(n);  // mean absolute deviation of a normal distribution
  for (int pass = 0; pass < 2; ++pass) {
    double sq = 0.0;
    std::size_t count = 0;
    const double limit = 3.5 * std::max(sigma, 0.5);
    for (std::size_t i = 0; i < n; ++i) {
      const double d = y[i] - background;
      if (std::fabs(d) <= limit) sq += d * d, ++count;
    }
    sigma = count ? std::sqrt(sq / double(count)) : sigma;
  }
  return sigma;
}

template <class T>
void PeakDetectionFamily<T>::Impl::findCandidates(std::size_t n, const RowStats& s,
                                                  std::vector<Candidate>& out) {
  for (std::size_t i = 0; i < n; ++i) {
    const double l = y[i > 0 ? i - 1 : i], r = y[i + 1 < n ? i + 1 : i];
    smooth[i] = 0.25 * l + 0.5 * y[i] + 0.25 * r;
  }
  const double refSigma = settings.referencePulseWidth / sampleInterval / kFwhmPerSigma;
  for (std::size_t a = 0; a < n;) {
    std::size_t b = a;
    while (b + 1 < n && smooth[b + 1] == smooth[a]) ++b;  // a flat top counts once
    const bool rises = a == 0 || smooth[a - 1] < smooth[a];
    const bool falls = b + 1 == n || smooth[b + 1] < smooth[b];
    const double height = smooth[a] - s.background;
    if (rises && falls && height > s.threshold && a > 0 && b + 1 < n)
      out.push_back({0.5 * double(a + b), height, refSigma});
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
  const double half = s.background + 0.5 * height;
  auto crossing = [&](int direction) {
    std::ptrdiff_t i = std::ptrdiff_t(std::lround(position));
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
  std::size_t i = std::size_t(std::lround(c.position));
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
    double delta = 0.0;
    if (l > 0 && m > 0 && r > 0) {
      const double ll = std::log(l), lm = std::log(m), lr = std::log(r);
      const double d = ll - 2 * lm + lr;
      delta = d < 0 ? 0.5 * (ll - lr) / d : 0.0;
      c.height = std::exp(lm - 0.125 * (ll - lr) * (ll - lr) / d);
    } else {
      c.height = m;
    }
    c.position = double(i) + std::clamp(delta, -0.5, 0.5);
  }
  const double width = halfWidth(n, s, c.position, c.height);
  c.sigma = std::max(width / kFwhmPerSigma, 0.3);
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
  std::vector<GaussianComponent> comps;
  for (const auto& c : cluster)
    comps.push_back({c.height, c.position, std::clamp(c.sigma, limits.minSigma, limits.maxSigma)});
  fitGaussians(y, weight, lo, hi, s.background, comps, limits);
  // An echo the candidates missed (a shoulder) still shows in the residual.
  if (comps.size() < std::size_t(settings.maxEchoes)) {
    double worst = 0.0;
    std::size_t at = lo;
    for (std::size_t i = lo; i < hi; ++i) {
      double model = s.background;
      for (const auto& g : comps)
        model += gaussianPulse(double(i), g.centre, g.amplitude, g.sigma * kFwhmPerSigma);
      if (weight[i] > 0 && y[i] - model > worst) worst = y[i] - model, at = i;
    }
    if (worst > s.threshold) {
      comps.push_back({worst, double(at), refSigma});
      fitGaussians(y, weight, lo, hi, s.background, comps, limits);
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
  std::vector<Candidate> result, cluster;
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
  cands = std::move(result);
}

template <class T>
float PeakDetectionFamily<T>::Impl::damping(std::size_t n, const RowStats& s,
                                            const std::vector<Candidate>& echoes) {
  if (echoes.empty()) return 0.0f;
  const double edge = echoes.front().position + 2.0 * echoes.front().sigma;
  double total = 0.0, after = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double e = std::max(0.0, y[i] - s.background);
    total += e;
    if (double(i) > edge) after += e;
  }
  return total > 0 ? float(after / total) : 0.0f;
}

template <class T>
Vorlap::StrongPtr<WavePoints<T>> PeakDetectionFamily<T>::Impl::detectRow(
    const Tessal::MemArray<2, T>& samples, std::size_t row, std::size_t n,
    std::int32_t noiseLevel) {
  auto wave = Vorlap::makeStrong<WavePoints<T>>();
  if (n < 3) return wave;
  T maxSample = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const T v = samples.get(i, row);
    scratch[i] = v;
    y[i] = double(v);
    maxSample = std::max(maxSample, v);
  }
  wave->maxSample = maxSample;
  const RowStats s = stats(n, noiseLevel, maxSample);
  std::vector<Candidate>& cands = candidates;
  cands.clear();
  findCandidates(n, s, cands);
  for (auto& c : cands) refineFast(n, s, c);
  if (mode == FWF_GAUSSIAN_DECOMPOSITION && !cands.empty()) decompose(n, s, cands);
  wave->damping = damping(n, s, cands);
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
  impl_ = new Impl{mode, settings, scanner.sampleInterval, samplesPerWaveform, {}, {}, {}, {}, {}};
  impl_->y.resize(samplesPerWaveform);
  impl_->smooth.resize(samplesPerWaveform);
  impl_->weight.resize(samplesPerWaveform);
  impl_->scratch.resize(samplesPerWaveform);
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
    const std::string&) {
  WaveList waves;
  if (!impl_ || !samples || !fwfLength || !gpsTime || !sblTime || !channel) return waves;
  const std::size_t perRow = std::min<std::size_t>(samples->extent(0), impl_->samplesPerRow);
  const std::size_t rows = std::min(
      {samples->extent(1), fwfLength->size(), gpsTime->size(), sblTime->size(), channel->size()});
  waves.reserve(rows);
  for (std::size_t r = 0; r < rows; ++r) {
    const std::size_t valid = std::min<std::size_t>(fwfLength->get(r), perRow);
    auto wave = impl_->detectRow(*samples, r, valid, noiseLevel);
    wave->waveTime = gpsTime->get(r);
    wave->channel = channel->get(r);
    const double sbl = sblTime->get(r);
    for (auto& e : wave->echoes) e.time = sbl + e.samplePosition * impl_->sampleInterval;
    wave->timeOffset = wave->echoes.empty() ? 0.0 : wave->echoes.front().time;
    waves.push_back(wave);
  }
  return waves;
}

template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform

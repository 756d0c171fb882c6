// Simulates one fragment: every shot that can have echoes recorded in the fragment (back to
// the survey's deepest zone) is traced; each echo arrives at emission + 2 x range / light
// speed and is recorded after the latest shot fired before it, unless it arrives within the
// receiver's blind window after that shot; the truth lists every echo. The echoes of one emitting
// shot recorded after the same shot share waveform rows (one per channel, further rows when
// they do not fit one), rendered with the detector's pulse shape, baseline and noise. Some
// rows are not kept as waveforms and leave only online records.
#include "sim/FragmentSimulation.hpp"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "waveform/PulseShape.hpp"

namespace quillo::sim {

namespace {

constexpr double kBaseline = 20.0, kNoiseSigma = 2.0, kPulseFwhm = 3.0e-9;
// Samples recorded before a row's first echo and after its last one; the digitiser keeps
// only that stretch, the rest of the row is 0.
constexpr double kPreTrigger = 12, kPostTrigger = 16;
constexpr double kGain[2] = {8.0, 1.0};  // channel 0 high gain, channel 1 low gain
// The online detector reports an echo from the low-gain channel once the high-gain peak
// would pass this many counts, to keep its amplitude linear.
constexpr double kOnlineLowGainFrom = 512.0;
constexpr double kPulseReach = 6.0;           // pulse sigmas rendered either side of an echo
constexpr std::uint64_t kMaxRowsPerShot = 8;  // row keys: shot x 8 + row
constexpr std::uint64_t kNoisePurpose = 7, kOnlinePurpose = 8, kOnlineOnlyPurpose = 9;

struct Echo {
  double arrival, range, amplitude;
  Target target;
  std::uint64_t recorder;
};

// A waveform row before rendering: what it holds and where its echoes are.
struct RowPlan {
  double time, start;  // recording shot's time; first sample after it
  std::uint8_t channel, zone;
  std::uint16_t length;  // valid samples
  std::uint32_t emitter;
  std::uint64_t key;
  std::uint32_t firstEcho, echoEnd, rowEcho;  // echoes to render; the row's own first echo
};

// Shot times from `base` to just past the fragment, computed once for the recording search.
class ShotClock {
 public:
  ShotClock(const Survey& survey, std::uint64_t base, std::uint64_t last) : base_(base) {
    end_ = std::min(last + 1, survey.config().shots);
    atSurveyEnd_ = end_ == survey.config().shots;
    times_.reserve(end_ - base_);
    for (std::uint64_t k = base_; k < end_; ++k) times_.push_back(survey.shotTime(k));
  }
  double time(std::uint64_t k) const { return times_[k - base_]; }
  // The latest shot at or after k fired at or before `arrival`; past the clock's shots
  // (beyond the fragment) any value >= end - 1.
  std::uint64_t recordingShot(std::uint64_t k, double arrival) const {
    const auto from = times_.begin() + std::ptrdiff_t(k - base_);
    const auto after = std::upper_bound(from, times_.end(), arrival);
    if (after == times_.end() && !atSurveyEnd_) return end_;
    return base_ + std::uint64_t(after - times_.begin()) - 1;
  }

 private:
  std::uint64_t base_, end_;
  bool atSurveyEnd_;
  std::vector<double> times_;
};

// Approximately normal noise from the four 16-bit parts of one counter-based draw.
class NoiseSource {
 public:
  explicit NoiseSource(std::uint64_t seed)
      : key_(std::uint64_t(uniformAt(seed, 0, kNoisePurpose) * 9007199254740992.0)) {}
  double at(std::uint64_t index) const {
    std::uint64_t x = (key_ ^ index) + 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    x ^= x >> 31;
    const double sum = double(x & 0xFFFF) + double((x >> 16) & 0xFFFF) +
                       double((x >> 32) & 0xFFFF) + double(x >> 48);
    return (sum / 65536.0 - 2.0) * std::sqrt(3.0);
  }

 private:
  std::uint64_t key_;
};

struct Work {
  const Survey& survey;
  ShotClock clock;
  std::uint64_t first, last;
  std::vector<Echo> echoes;  // of every planned row, shot after shot
  std::vector<RowPlan> rows;
  std::vector<Return> returns;
};

void addOnlineRecord(Work& w, const Echo& e, std::uint64_t emitter, std::uint64_t recorder,
                     FragmentData& out) {
  const double c = w.survey.config().lightSpeed, tr = w.clock.time(recorder);
  out.oppTime.push_back(tr);
  out.oppRange.push_back(c * (e.arrival - tr) * 0.5);  // as the detector sees it: zone 0
  out.oppAmplitude.push_back(float(e.amplitude));
  out.oppReflectance.push_back(float(10.0 * std::log10(e.amplitude)));
  out.oppChannel.push_back(e.amplitude * kGain[0] > kOnlineLowGainFrom ? 1 : 0);
  out.oppEmitter.push_back(std::uint32_t(emitter));
  out.oppZone.push_back(std::uint8_t(recorder - emitter));
  out.oppTarget.push_back(std::uint8_t(e.target));
  out.oppTrueRange.push_back(e.range);
}

// One row of echoes [from, to) of shot k recorded after `recorder`: two waveform rows, or
// online records only; echoes of waveform rows get online records too, some of them.
void planRow(Work& w, std::uint64_t k, std::uint64_t recorder, std::size_t from, std::size_t to,
             std::uint64_t rowIndex, std::size_t shotEchoes, FragmentData& out) {
  const auto& c = w.survey.config();
  const std::uint64_t key = k * kMaxRowsPerShot + std::min(rowIndex, kMaxRowsPerShot - 1);
  if (uniformAt(c.seed, key, kOnlineOnlyPurpose) < c.onlineOnlyShare) {
    for (std::size_t i = from; i < to; ++i) addOnlineRecord(w, w.echoes[i], k, recorder, out);
    return;
  }
  const double tr = w.clock.time(recorder);
  // Recording cannot begin before the receiver sees again after the recording shot: an echo
  // just after its blind window gets a shorter pre-trigger.
  const double start = std::max(std::max(0.0, c.blindWindow),
                                w.echoes[from].arrival - tr - kPreTrigger * c.sampleInterval);
  const double span = (w.echoes[to - 1].arrival - tr - start) / c.sampleInterval;
  const auto length =
      std::uint16_t(std::min(double(c.samplesPerRow), std::ceil(span) + kPostTrigger));
  for (std::uint8_t channel = 0; channel < 2; ++channel)
    w.rows.push_back({tr, start, channel, std::uint8_t(recorder - k), length, std::uint32_t(k),
                      key * 2 + channel, std::uint32_t(shotEchoes), std::uint32_t(w.echoes.size()),
                      std::uint32_t(from)});
  for (std::size_t i = from; i < to; ++i)
    if (uniformAt(c.seed, k * 8 + (i - shotEchoes), kOnlinePurpose) < c.onlineShare)
      addOnlineRecord(w, w.echoes[i], k, recorder, out);
}

void addEchoTruth(const Echo& e, std::uint64_t k, bool recorded, FragmentData& out) {
  out.echoEmitter.push_back(std::uint32_t(k));
  out.echoZone.push_back(std::uint8_t(e.recorder - k));
  out.echoRange.push_back(e.range);
  out.echoTarget.push_back(std::uint8_t(e.target));
  out.echoRecorded.push_back(recorded ? 1 : 0);
}

// The echoes of shot k recorded in the fragment, into the truth; those that arrive while the
// receiver is blind go no further.
void collectEchoes(Work& w, std::uint64_t k, const Shot& shot, FragmentData& out) {
  const auto& c = w.survey.config();
  w.survey.returns(k, shot, w.returns);
  for (const Return& r : w.returns) {
    const double arrival = shot.time + 2.0 * r.range / c.lightSpeed;
    const std::uint64_t recorder = w.clock.recordingShot(k, arrival);
    if (recorder < w.first || recorder >= w.last) continue;
    const Echo e{arrival, r.range, 4.0e7 * r.reflectivity / (r.range * r.range), r.target,
                 recorder};
    const bool blind = arrival - w.clock.time(recorder) < c.blindWindow;
    addEchoTruth(e, k, !blind, out);
    if (!blind) w.echoes.push_back(e);
  }
}

// Splits the recorded echoes of shot k into rows: a new row wherever the recording shot
// changes or the echo falls outside the window that the row's first echo opened.
void recordShot(Work& w, std::uint64_t k, const Shot& shot, FragmentData& out) {
  const auto& c = w.survey.config();
  const std::size_t shotEchoes = w.echoes.size();
  collectEchoes(w, k, shot, out);
  if (w.echoes.size() == shotEchoes) return;
  const double window = (c.samplesPerRow - kPreTrigger - kPostTrigger) * c.sampleInterval;
  std::uint64_t rowIndex = 0;
  std::size_t from = shotEchoes;
  for (std::size_t i = shotEchoes + 1; i <= w.echoes.size(); ++i) {
    if (i < w.echoes.size() && w.echoes[i].recorder == w.echoes[from].recorder &&
        w.echoes[i].arrival - w.echoes[from].arrival < window)
      continue;
    planRow(w, k, w.echoes[from].recorder, from, i, rowIndex++, shotEchoes, out);
    from = i;
  }
}

void renderRows(const Work& w, FragmentData& out) {
  const auto& c = w.survey.config();
  const NoiseSource noise(c.seed);
  const double sigma = kPulseFwhm / FullWaveform::kFwhmPerSigma;
  std::vector<double> signal(c.samplesPerRow);
  out.samples.resize(w.rows.size() * c.samplesPerRow);
  std::uint16_t* rowSamples = out.samples.data();
  for (const RowPlan& row : w.rows) {
    std::fill(signal.begin(), signal.end(), 0.0);
    for (std::uint32_t e = row.firstEcho; e < row.echoEnd; ++e) {
      const double centre = (w.echoes[e].arrival - row.time - row.start) / c.sampleInterval;
      const double reach = kPulseReach * sigma / c.sampleInterval;
      const auto lo = std::int64_t(std::max(0.0, std::ceil(centre - reach)));
      const auto hi = std::int64_t(std::min(double(row.length) - 1, std::floor(centre + reach)));
      for (std::int64_t i = lo; i <= hi; ++i)
        signal[std::size_t(i)] +=
            FullWaveform::gaussianPulse(double(i) * c.sampleInterval, centre * c.sampleInterval,
                                        w.echoes[e].amplitude, kPulseFwhm);
    }
    const double gain = kGain[row.channel];
    const std::uint64_t noiseBase = row.key * c.samplesPerRow;
    for (std::uint32_t i = 0; i < row.length; ++i) {
      const double v = kBaseline + kNoiseSigma * noise.at(noiseBase + i) + gain * signal[i];
      rowSamples[i] = std::uint16_t(std::clamp(v, 0.0, kDigitiserMax) + 0.5);
    }
    rowSamples += c.samplesPerRow;
  }
}

void fillRowFields(const Work& w, FragmentData& out) {
  for (const RowPlan& row : w.rows) {
    out.rowTime.push_back(row.time);
    out.sblTime.push_back(row.start);
    out.rowChannel.push_back(row.channel);
    out.length.push_back(row.length);
    out.rowEmitter.push_back(row.emitter);
    out.rowZone.push_back(row.zone);
    out.rowRange.push_back(w.echoes[row.rowEcho].range);
    out.rowTarget.push_back(std::uint8_t(w.echoes[row.rowEcho].target));
  }
}

template <class T>
void permute(std::vector<T>& v, const std::vector<std::size_t>& order) {
  std::vector<T> sorted;
  sorted.reserve(v.size());
  for (std::size_t i : order) sorted.push_back(v[i]);
  v = std::move(sorted);
}

// Online records in recording order, the order in which the scanner writes them.
void sortOnlineRecords(FragmentData& d) {
  std::vector<std::size_t> order(d.oppTime.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return std::tie(d.oppTime[a], d.oppChannel[a]) < std::tie(d.oppTime[b], d.oppChannel[b]);
  });
  for (auto* v : {&d.oppTime, &d.oppRange, &d.oppTrueRange}) permute(*v, order);
  for (auto* v : {&d.oppAmplitude, &d.oppReflectance}) permute(*v, order);
  for (auto* v : {&d.oppChannel, &d.oppZone, &d.oppTarget}) permute(*v, order);
  permute(d.oppEmitter, order);
}

}  // namespace

FragmentData simulateFragment(const Survey& survey, std::uint32_t fragment) {
  const auto& c = survey.config();
  const std::uint64_t first = std::uint64_t(fragment) * c.fragmentShots;
  const std::uint64_t last = std::min<std::uint64_t>(first + c.fragmentShots, c.shots);
  const std::uint64_t lookBack = survey.deepestZone();
  const std::uint64_t base = first > lookBack ? first - lookBack : 0;
  Work w{survey, ShotClock(survey, base, last), first, last, {}, {}, {}};
  FragmentData d;
  d.shotTime.reserve(last - first), d.origin.reserve(last - first);
  d.direction.reserve(last - first);
  w.rows.reserve(2 * (last - first) + 64);
  for (std::uint64_t k = base; k < last; ++k) {
    const Shot s = survey.shot(k);
    if (k >= first) {
      d.shotTime.push_back(s.time);
      d.origin.push_back(survey.toScanner(s.origin));
      d.direction.push_back(survey.toScanner(s.direction));
    }
    recordShot(w, k, s, d);
  }
  // Recording order (the scanner's): by recording shot, channel 0 first; stable, so the rows
  // of one recording shot stay in emission order.
  std::stable_sort(w.rows.begin(), w.rows.end(), [](const RowPlan& a, const RowPlan& b) {
    return std::tie(a.time, a.channel) < std::tie(b.time, b.channel);
  });
  renderRows(w, d);
  fillRowFields(w, d);
  sortOnlineRecords(d);
  return d;
}

}  // namespace quillo::sim

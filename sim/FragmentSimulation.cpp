// Simulates one fragment: every shot that can have echoes recorded in the fragment (up to 16
// shots before it) is traced; each echo arrives at emission + 2 x range / light speed and is
// recorded after the latest shot fired before it. Waveform rows hold the echoes of one
// emitting shot per channel, rendered with the detector's pulse shape, baseline and noise.
#include "sim/FragmentSimulation.hpp"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "waveform/PulseShape.hpp"

namespace quillo::sim {

namespace {

constexpr std::uint64_t kLookBack = 16;  // shots: more than the deepest zone of any preset
constexpr double kBaseline = 20.0, kNoiseSigma = 2.0, kPulseFwhm = 3.0e-9, kPreTrigger = 12;
constexpr double kGain[2] = {8.0, 1.0};  // channel 0 high gain, channel 1 low gain

struct Echo {
  double arrival, range, amplitude;
  Target target;
};

// Approximately normal noise: the sum of the four 16-bit parts of one counter-based draw.
double noiseAt(std::uint64_t seed, std::uint64_t index) {
  const double u = uniformAt(seed, index, 7);
  const auto bits = static_cast<std::uint64_t>(u * 18446744073709551616.0);
  double sum = 0.0;
  for (int part = 0; part < 4; ++part) sum += double((bits >> (16 * part)) & 0xFFFF) / 65536.0;
  return (sum - 2.0) * std::sqrt(3.0);
}

void renderRow(const Survey& survey, const std::vector<Echo>& echoes, std::uint64_t recorder,
               int channel, std::uint64_t rowKey, FragmentData& out) {
  const auto& c = survey.config();
  const double start =
      echoes.front().arrival - survey.shotTime(recorder) - kPreTrigger * c.sampleInterval;
  out.rowTime.push_back(survey.shotTime(recorder));
  out.sblTime.push_back(start);
  out.rowChannel.push_back(std::uint8_t(channel));
  out.length.push_back(std::uint16_t(c.samplesPerRow));
  for (std::uint32_t i = 0; i < c.samplesPerRow; ++i) {
    const double t = start + i * c.sampleInterval;
    double v = kBaseline + kNoiseSigma * noiseAt(c.seed, rowKey * c.samplesPerRow + i);
    for (const auto& e : echoes)
      v += FullWaveform::gaussianPulse(t, e.arrival - survey.shotTime(recorder),
                                       e.amplitude * kGain[channel], kPulseFwhm);
    out.samples.push_back(std::uint16_t(std::clamp(std::round(v), 0.0, kDigitiserMax)));
  }
}

void recordShot(const Survey& survey, std::uint64_t k, std::uint64_t first, std::uint64_t last,
                FragmentData& out) {
  const auto& c = survey.config();
  const double t = survey.shotTime(k);
  std::vector<Echo> echoes;
  for (const Return& r : survey.returns(k)) {
    const double amplitude = 4.0e7 * r.reflectivity / (r.range * r.range);
    echoes.push_back({t + 2.0 * r.range / c.lightSpeed, r.range, amplitude, r.target});
  }
  if (echoes.empty()) return;
  const std::uint64_t recorder = survey.recordingShot(k, echoes.front().arrival);
  if (recorder < first || recorder >= last) return;
  const auto zone = std::uint8_t(recorder - k);
  const double window = (c.samplesPerRow - 2 * kPreTrigger) * c.sampleInterval;
  std::vector<Echo> inRow;
  for (const auto& e : echoes)
    if (e.arrival - echoes.front().arrival < window &&
        survey.recordingShot(k, e.arrival) == recorder)
      inRow.push_back(e);
  for (int channel = 0; channel < 2; ++channel) {
    renderRow(survey, inRow, recorder, channel, k * 2 + std::uint64_t(channel), out);
    out.rowEmitter.push_back(std::uint32_t(k));
    out.rowZone.push_back(zone);
    out.rowRange.push_back(inRow.front().range);
    out.rowTarget.push_back(std::uint8_t(inRow.front().target));
  }
  for (std::size_t i = 0; i < inRow.size(); ++i) {
    if (uniformAt(c.seed, k * 8 + i, 8) >= c.onlineShare) continue;
    const double tr = survey.shotTime(recorder);
    out.oppTime.push_back(tr);
    out.oppRange.push_back(c.lightSpeed * (inRow[i].arrival - tr) * 0.5);  // as if zone 0
    out.oppAmplitude.push_back(float(inRow[i].amplitude));
    out.oppReflectance.push_back(float(10.0 * std::log10(inRow[i].amplitude)));
    out.oppChannel.push_back(1);
    out.oppEmitter.push_back(std::uint32_t(k));
    out.oppZone.push_back(zone);
    out.oppTarget.push_back(std::uint8_t(inRow[i].target));
    out.oppTrueRange.push_back(inRow[i].range);
  }
}

template <class T>
void permute(std::vector<T>& v, const std::vector<std::size_t>& order, std::size_t width = 1) {
  std::vector<T> sorted;
  sorted.reserve(v.size());
  for (std::size_t i : order)
    sorted.insert(sorted.end(), v.begin() + std::ptrdiff_t(i * width),
                  v.begin() + std::ptrdiff_t((i + 1) * width));
  v = std::move(sorted);
}

std::vector<std::size_t> orderBy(const std::vector<double>& time,
                                 const std::vector<std::uint8_t>& channel) {
  std::vector<std::size_t> order(time.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return std::tie(time[a], channel[a]) < std::tie(time[b], channel[b]);
  });
  return order;
}

// Rows and records in recording order, the order in which the scanner writes them.
void sortByRecording(FragmentData& d, std::uint32_t samplesPerRow) {
  const auto rows = orderBy(d.rowTime, d.rowChannel);
  permute(d.samples, rows, samplesPerRow);
  for (auto* v : {&d.rowTime, &d.sblTime, &d.rowRange}) permute(*v, rows);
  for (auto* v : {&d.rowChannel, &d.rowZone, &d.rowTarget}) permute(*v, rows);
  permute(d.length, rows);
  permute(d.rowEmitter, rows);
  const auto records = orderBy(d.oppTime, d.oppChannel);
  for (auto* v : {&d.oppTime, &d.oppRange, &d.oppTrueRange}) permute(*v, records);
  for (auto* v : {&d.oppAmplitude, &d.oppReflectance}) permute(*v, records);
  for (auto* v : {&d.oppChannel, &d.oppZone, &d.oppTarget}) permute(*v, records);
  permute(d.oppEmitter, records);
}

}  // namespace

FragmentData simulateFragment(const Survey& survey, std::uint32_t fragment) {
  const auto& c = survey.config();
  const std::uint64_t first = std::uint64_t(fragment) * c.fragmentShots;
  const std::uint64_t last = std::min<std::uint64_t>(first + c.fragmentShots, c.shots);
  FragmentData d;
  for (std::uint64_t k = first; k < last; ++k) {
    const Shot s = survey.shot(k);
    d.shotTime.push_back(s.time);
    d.origin.push_back(s.origin);
    d.direction.push_back(s.direction);
  }
  for (std::uint64_t k = first > kLookBack ? first - kLookBack : 0; k < last; ++k)
    recordShot(survey, k, first, last, d);
  sortByRecording(d, c.samplesPerRow);
  return d;
}

}  // namespace quillo::sim

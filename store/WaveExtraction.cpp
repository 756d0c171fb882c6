// Wave extraction. Reads the fragment's FWF and OPP arrays, the scanner description and the
// run's detection parameters; writes wavePoints and fwfIndex.
#include "store/WaveExtraction.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>

#include "store/FragmentLoading.hpp"
#include "store/KeyedOrder.hpp"
#include "tessal/Schema.hpp"
#include "waveform/OnlineEvaluation.hpp"
#include "waveform/PeakDetection.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

// Channel 0 is the high-gain receiver: above this it is saturated and the low-gain
// channel's wave of the same shot is the one to keep.
constexpr unsigned short kHighGainSaturation = 1800;

// Truncates toward zero into the detector's integer range (NaN gives 0).
std::int32_t noiseLevelArgument(double level) {
  if (std::isnan(level)) return 0;
  const double lo = std::numeric_limits<std::int32_t>::min();
  const double hi = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::trunc(std::clamp(level, lo, hi)));
}

std::string detectPeaks(FatBoy<unsigned short>& fb, WaveList& out) {
  const auto& a = fb.FWF->arrays;
  const auto samples = static_cast<std::uint32_t>(a.Waveforms->extent(0));
  auto id = findFragmentID(*fb.SHOT, schema::kPositions);
  const std::string fragment = id ? id->getName() : std::string();
  PeakDetectionFamily<unsigned short> detector(
      fb.input->fwfModus, fb.scannerDevice, fb.input->peakDetectionPath,
      std::filesystem::path(fb.input->inputFileName), samples);
  if (!detector.errorText().empty()) return detector.errorText();
  out = detector.apply(a.Waveforms, a.FWFLength, a.GPSTime, a.SBL_Time, a.Channel,
                       noiseLevelArgument(fb.input->noiseLevel), fragment, &fb.wavePool);
  return "";
}

WaveList evaluateOnline(FatBoy<unsigned short>& fb) {
  const auto& a = fb.OPP->arrays;
  OnlineEvaluation<unsigned short> online(fb.scannerDevice);
  return online.apply(a.GPSTime, a.Range, a.Amplitude, a.Channel, a.Reflectance, &fb.wavePool);
}

}  // namespace

std::string iniWavePoints(FatBoy<unsigned short>& fb) {
  fb.wavePool.giveBack(fb.wavePoints);
  fb.zoneInputs.clear();
  fb.wavePool.orderByAddress();
  WaveList fromWaveforms, online;
  if (fb.FWF) {
    std::string error = detectPeaks(fb, fromWaveforms);
    if (!error.empty()) return error;
  }
  if (fb.OPP) online = evaluateOnline(fb);
  if (fb.FWF && fb.OPP) {
    mergeWavePoints(fb, std::move(online), std::move(fromWaveforms));
  } else if (fb.FWF) {
    fb.wavePoints = std::move(fromWaveforms);
    fb.fwfIndex.resize(fb.wavePoints.size());
    for (std::size_t k = 0; k < fb.fwfIndex.size(); ++k) fb.fwfIndex[k] = std::int32_t(k);
  } else if (fb.OPP) {
    fb.wavePoints = std::move(online);
    fb.fwfIndex.assign(fb.wavePoints.size(), -1);
  }
  return "";
}

void mergeWavePoints(FatBoy<unsigned short>& fb, WaveList online, WaveList fromWaveforms) {
  struct Source {
    std::uint32_t index;
    bool fromWaveforms;
  };
  std::vector<Keyed<Source>> byTime;
  byTime.reserve(fromWaveforms.size() + online.size());
  // A NaN time cannot be ordered (nor match a shot): such waves go last, in input order.
  std::vector<Source> unordered;
  auto add = [&](double time, Source s) {
    if (std::isnan(time))
      unordered.push_back(s);
    else
      byTime.push_back({time, s});
  };
  for (std::uint32_t j = 0; j < fromWaveforms.size(); ++j) {
    const auto& w = fromWaveforms[j];
    if (!w) continue;
    if (w->channel == 0 && w->getMaxAmplitude() > kHighGainSaturation) continue;
    add(w->waveTime, {j, true});
  }
  const std::size_t waveformCount = byTime.size();
  for (std::uint32_t j = 0; j < online.size(); ++j) {
    if (!online[j]) continue;
    add(online[j]->waveTime, {j, false});
  }
  stableMergeByKey(byTime, waveformCount);
  const std::size_t count = byTime.size() + unordered.size();
  fb.wavePoints.resize(count);
  fb.fwfIndex.assign(count, -1);
  std::size_t k = 0;
  auto place = [&](const Source& s) {
    fb.wavePoints[k] = std::move(s.fromWaveforms ? fromWaveforms[s.index] : online[s.index]);
    if (s.fromWaveforms) fb.fwfIndex[k] = std::int32_t(s.index);
    ++k;
  };
  for (const auto& entry : byTime) place(entry.value);
  for (const auto& s : unordered) place(s);
  // What is left are the saturated high-gain waves.
  fb.wavePool.giveBack(fromWaveforms);
}

}  // namespace FullWaveform

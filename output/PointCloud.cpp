// Point-cloud assembly. Reads the listed waves, their shots, zones and travel times, the
// waveform samples and the scanner description; fills the store's output arrays, numbers
// the returns of each shot and saves the arrays into the output grid.
#include "output/PointCloud.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "output/Reflectance.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

// A point that takes part in the numbering of its shot's returns.
struct ShotReturn {
  double time, range;
  std::uint32_t point;
};
using ShotReturns = std::vector<ShotReturn>;

// What one wave contributes to all of its points.
struct WaveContext {
  std::uint32_t index;
  double t0, length, time;
  vector dir;
  point origin;
  std::int32_t zone;
  std::int16_t scanAngleRank;
};

std::int16_t scanAngleRankOf(const vector& dir) {
  const double angle = std::atan2(dir.z, dir.x) * 180.0 / std::numbers::pi / 0.006;
  if (!(std::fabs(angle) < 2147483648.0)) return 0;  // NaN or out of 32-bit range
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::int32_t>(angle)));
}

class PointWriter {
 public:
  PointWriter(FatBoy<unsigned short>& fb, const Input& input, std::uint32_t& pointIdCounter)
      : fb_(fb), ids_(pointIdCounter) {
    const auto& sd = fb.scannerDevice;
    v_ = sd.lightSpeed;
    s_ = sd.sampleInterval * sd.lightSpeed * 0.5;
    if (s_ == 0.0) s_ = 1.0;
    storedReflectance_ = input.RDB_SEGMENT == -1 && input.skipFWF;
    if (sd.reflectanceTable) table_ = &sd.reflectanceTable->values;
    exportFWF_ = input.exportFWF;
  }

  void writeWave(const WaveContext& w) {
    const auto& wave = *fb_.wavePoints[w.index];
    for (const EchoPoint& e : wave.echoes) {
      writeEcho(w, wave, e);
      // A NaN time or range cannot be ordered: such a point keeps return 1 of 1.
      const double range = fb_.pointSlots.Range.data->get(p_);
      if (!std::isnan(w.time) && !std::isnan(range)) shots_.push_back({w.time, range, p_});
      ++p_;
      ++ids_;
    }
  }

  ShotReturns& shots() { return shots_; }

 private:
  void writeEcho(const WaveContext& w, const WavePoints<unsigned short>& wave, const EchoPoint& e);
  void writeWaveform(const WaveContext& w, const EchoPoint& e);
  float reflectanceOf(const EchoPoint& e) const;

  FatBoy<unsigned short>& fb_;
  std::uint32_t& ids_;
  std::uint32_t p_ = 0;
  double v_ = 0.0, s_ = 1.0;
  bool storedReflectance_ = false, exportFWF_ = false;
  const std::vector<float>* table_ = nullptr;
  ShotReturns shots_;
};

float PointWriter::reflectanceOf(const EchoPoint& e) const {
  if (storedReflectance_) return e.reflectance;
  static const std::vector<float> none;
  return static_cast<float>(predictReflectance_calibrated_from_attribute(
      e.amplitude, e.time * v_ * 0.5, table_ ? *table_ : none,
      fb_.scannerDevice.reflectanceTableStep));
}

void PointWriter::writeEcho(const WaveContext& w, const WavePoints<unsigned short>& wave,
                            const EchoPoint& e) {
  auto& p = fb_.pointSlots;
  const double d = (e.time - w.t0) * 0.5 + w.length;
  fb_.slotWaveID.data->set(p_, std::int32_t(w.index));
  fb_.slotGPSTime.data->set(p_, w.time);
  fb_.slotPositions.data->set(p_, {w.dir.x * d * v_ + w.origin.x, w.dir.y * d * v_ + w.origin.y,
                                   w.dir.z * d * v_ + w.origin.z});
  p.PointType.data->set(p_, std::uint8_t(e.pointType));
  fb_.slotMTA.data->set(p_, std::uint8_t(w.zone));
  fb_.slotScannerChannel.data->set(p_, wave.channel);
  p.Amplitude.data->set(p_, e.amplitude);
  p.Range.data->set(p_, v_ * d);
  if (p.PulseWidth.data) p.PulseWidth.data->set(p_, e.pulseWidth);
  if (p.Damping.data) p.Damping.data->set(p_, wave.damping);
  p.DirectionDelta.data->set(p_, {w.dir.x * s_, w.dir.y * s_, w.dir.z * s_});
  p.ReturnNumber.data->set(p_, 1);
  p.NumberOfReturns.data->set(p_, 1);
  p.ScanAngleRank.data->set(p_, w.scanAngleRank);
  p.Classification.data->set(p_, e.classification);
  p.PointID.data->set(p_, ids_);
  p.Reflectance.data->set(p_, reflectanceOf(e));
  if (exportFWF_) writeWaveform(w, e);
}

void PointWriter::writeWaveform(const WaveContext& w, const EchoPoint& e) {
  const std::int32_t row = fb_.fwfIndex[w.index];
  if (row < 0 || !fb_.FWF) return;
  auto& p = fb_.pointSlots;
  const auto& source = *fb_.FWF->arrays.Waveforms;
  const std::size_t nSamples = source.extent(0);
  for (std::size_t s = 0; s < nSamples; ++s)
    p.Waveforms.data->set(p_ * nSamples + s, source.get(s, row));
  p.WaveformPositionIndex.data->set(p_, static_cast<float>(e.samplePosition));
  p.FWFLength.data->set(p_, static_cast<std::uint16_t>(nSamples));
}

bool earlierReturn(const ShotReturn& a, const ShotReturn& b) {
  return a.time < b.time || (a.time == b.time && a.range < b.range);
}

// Numbers one shot's returns [begin, end), ordered by range, nearest first. Of points at
// the same range only the last one written counts; the others keep return 1 of 1.
bool numberShot(FatBoy<unsigned short>& fb, const ShotReturn* begin, const ShotReturn* end) {
  std::size_t distinct = 0;
  for (const ShotReturn* r = begin; r != end; ++r)
    if (r + 1 == end || r[1].range != r->range) ++distinct;
  if (distinct > 255) return false;
  auto& p = fb.pointSlots;
  std::uint32_t k = 1;
  for (const ShotReturn* r = begin; r != end; ++r) {
    if (r + 1 != end && r[1].range == r->range) continue;
    p.ReturnNumber.data->set(r->point, std::uint8_t(k++));
    p.NumberOfReturns.data->set(r->point, std::uint8_t(distinct));
  }
  return true;
}

// Ranks the points of each shot by range; false when a shot has more than 255 of them.
bool numberReturns(FatBoy<unsigned short>& fb, ShotReturns& returns) {
  // Stable: points of one shot at one range stay in writing order.
  if (!std::is_sorted(returns.begin(), returns.end(), earlierReturn))
    std::stable_sort(returns.begin(), returns.end(), earlierReturn);
  const ShotReturn* all = returns.data();
  for (std::size_t first = 0, next = 0; first < returns.size(); first = next) {
    next = first + 1;
    while (next < returns.size() && returns[next].time == returns[first].time) ++next;
    if (!numberShot(fb, all + first, all + next)) return false;
  }
  return true;
}

WaveContext contextOf(FatBoy<unsigned short>& fb, std::uint32_t w) {
  WaveContext c{w,
                fb.wavePoints[w]->timeOffset,
                0.0,
                fb.getShotTime(w),
                fb.getDir(w),
                fb.getBeamCoords(w),
                fb.getMTA(w),
                0};
  c.length = fb.getLength(w, c.t0);
  c.scanAngleRank = scanAngleRankOf(c.dir);
  return c;
}

}  // namespace

std::string makePointCloud(FatBoy<unsigned short>& fb, const std::vector<std::uint32_t>& waves,
                           const Vorlap::StrongPtr<Tessal::Grid>& outputGrid,
                           std::uint32_t& pointIdCounter, const Input& input) {
  if (waves.empty()) return "";
  auto representation = outputGrid->makeCartesianRepresentation(3, schema::kScannerChart, 0);
  fb.iniPointCloud(waves);
  PointWriter writer(fb, input, pointIdCounter);
  for (std::uint32_t w : waves) {
    if (w >= fb.nWaves || !fb.wavePoints[w]) continue;
    writer.writeWave(contextOf(fb, w));
  }
  if (!numberReturns(fb, writer.shots())) return "Error: ReturnNumber exceed uint8_t max (255)";
  fb.save(*representation);
  return "";
}

}  // namespace FullWaveform

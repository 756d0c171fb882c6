// Point-cloud assembly. Reads the listed waves, their shots, zones and travel times, the
// waveform samples and the scanner description; fills the store's output arrays, numbers
// the returns of each shot and saves the arrays into the output grid.
#include "output/PointCloud.hpp"

#include <algorithm>
#include <cmath>

#include "output/PointGeometry.hpp"
#include "output/Reflectance.hpp"
#include "tessal/Schema.hpp"

namespace FullWaveform {

namespace schema = Tessal::schema;

namespace {

using Gemwold::PhysicalSpace::point;
using Gemwold::PhysicalSpace::vector;

// What one wave contributes to all of its points.
struct WaveContext {
  std::uint32_t index;
  double t0, length, time;
  vector dir;
  point origin;
  std::int32_t zone;
  std::int16_t scanAngleRank;
};

class PointWriter {
 public:
  PointWriter(FatBoy<unsigned short>& fb, const Input& input, std::uint32_t& pointIdCounter)
      : fb_(fb), ids_(pointIdCounter) {
    const auto& sd = fb.scannerDevice;
    v_ = sd.lightSpeed;
    s_ = sampleRangeStep(sd.sampleInterval, sd.lightSpeed);
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
  const EchoPlacement placed = placeEcho(d, w.dir, w.origin, v_);
  fb_.slotWaveID.data->set(p_, std::int32_t(w.index));
  fb_.slotGPSTime.data->set(p_, w.time);
  fb_.slotPositions.data->set(p_, placed.position);
  p.PointType.data->set(p_, std::uint8_t(e.pointType));
  fb_.slotMTA.data->set(p_, std::uint8_t(w.zone));
  fb_.slotScannerChannel.data->set(p_, wave.channel);
  p.Amplitude.data->set(p_, e.amplitude);
  p.Range.data->set(p_, placed.range);
  if (p.PulseWidth.data) p.PulseWidth.data->set(p_, e.pulseWidth);
  if (p.Damping.data) p.Damping.data->set(p_, wave.damping);
  p.DirectionDelta.data->set(p_, directionDeltaOf(w.dir, s_));
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
  c.scanAngleRank = scanAngleRankFromAtan2(fb.directionAtan2ZX(w));
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
    if (w >= fb.nWaves || !fb.hasWave(w)) continue;
    writer.writeWave(contextOf(fb, w));
  }
  auto& p = fb.pointSlots;
  if (!numberReturns(writer.shots(), *p.ReturnNumber.data, *p.NumberOfReturns.data))
    return "Error: ReturnNumber exceed uint8_t max (255)";
  fb.save(*representation);
  return "";
}

}  // namespace FullWaveform

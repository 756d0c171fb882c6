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

// One output array written through its storage: the arrays iniPointCloud makes are plain
// contiguous blocks, so a point's twenty-odd values need no look-ups through the slots'
// handles. An array without such storage (or none at all) is written as before.
template <class E, unsigned N = 1>
class Column {
 public:
  explicit Column(const FieldSlot<E, N>& slot)
      : array_(slot.data.get()), values_(array_ ? array_->contiguousData() : nullptr) {}
  void set(std::size_t k, const E& v) const {
    if (values_)
      values_[k] = v;
    else if (array_)
      array_->set(k, v);
  }

 private:
  Tessal::MemArray<N, E>* array_;
  E* values_;
};

struct PointColumns {
  explicit PointColumns(const FatBoy<unsigned short>& fb)
      : waveID(fb.slotWaveID),
        gpsTime(fb.slotGPSTime),
        positions(fb.slotPositions),
        pointType(fb.pointSlots.PointType),
        mta(fb.slotMTA),
        channel(fb.slotScannerChannel),
        amplitude(fb.pointSlots.Amplitude),
        range(fb.pointSlots.Range),
        pulseWidth(fb.pointSlots.PulseWidth),
        damping(fb.pointSlots.Damping),
        directionDelta(fb.pointSlots.DirectionDelta),
        returnNumber(fb.pointSlots.ReturnNumber),
        numberOfReturns(fb.pointSlots.NumberOfReturns),
        scanAngleRank(fb.pointSlots.ScanAngleRank),
        classification(fb.pointSlots.Classification),
        pointID(fb.pointSlots.PointID),
        reflectance(fb.pointSlots.Reflectance) {}
  Column<std::int32_t> waveID;
  Column<double> gpsTime;
  Column<point> positions;
  Column<std::uint8_t> pointType, mta, channel;
  Column<float> amplitude;
  Column<double> range, pulseWidth;
  Column<float> damping;
  Column<vector> directionDelta;
  Column<std::uint8_t> returnNumber, numberOfReturns;
  Column<std::int16_t> scanAngleRank;
  Column<std::uint8_t> classification;
  Column<std::uint32_t> pointID;
  Column<float> reflectance;
};

class PointWriter {
 public:
  PointWriter(FatBoy<unsigned short>& fb, const Input& input, std::uint32_t& pointIdCounter)
      : fb_(fb), columns_(fb), ids_(pointIdCounter) {
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
      const double range = writeEcho(w, wave, e);
      // A NaN time or range cannot be ordered: such a point keeps return 1 of 1.
      if (!std::isnan(w.time) && !std::isnan(range)) shots_.push_back({w.time, range, p_});
      ++p_;
      ++ids_;
    }
  }

  ShotReturns& shots() { return shots_; }

 private:
  // Returns the point's range.
  double writeEcho(const WaveContext& w, const WavePoints<unsigned short>& wave,
                   const EchoPoint& e);
  void writeWaveform(const WaveContext& w, const EchoPoint& e);
  float reflectanceOf(const EchoPoint& e) const;

  FatBoy<unsigned short>& fb_;
  PointColumns columns_;
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

double PointWriter::writeEcho(const WaveContext& w, const WavePoints<unsigned short>& wave,
                              const EchoPoint& e) {
  const PointColumns& c = columns_;
  const double d = (e.time - w.t0) * 0.5 + w.length;
  const EchoPlacement placed = placeEcho(d, w.dir, w.origin, v_);
  c.waveID.set(p_, std::int32_t(w.index));
  c.gpsTime.set(p_, w.time);
  c.positions.set(p_, placed.position);
  c.pointType.set(p_, std::uint8_t(e.pointType));
  c.mta.set(p_, std::uint8_t(w.zone));
  c.channel.set(p_, wave.channel);
  c.amplitude.set(p_, e.amplitude);
  c.range.set(p_, placed.range);
  c.pulseWidth.set(p_, e.pulseWidth);
  c.damping.set(p_, wave.damping);
  c.directionDelta.set(p_, directionDeltaOf(w.dir, s_));
  c.returnNumber.set(p_, 1);
  c.numberOfReturns.set(p_, 1);
  c.scanAngleRank.set(p_, w.scanAngleRank);
  c.classification.set(p_, e.classification);
  c.pointID.set(p_, ids_);
  c.reflectance.set(p_, reflectanceOf(e));
  if (exportFWF_) writeWaveform(w, e);
  return placed.range;
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
